#include "zq/orvane/RegistryError.h"

#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

namespace {

// The texts are the status table's, as the tool prints them.
class RegistryCategory : public std::error_category {
  public:
    const char* name() const noexcept override { return "orvane"; }
    std::string message(int code) const override {
        const char* text = status::describe(static_cast<int32_t>(code));
        return text != nullptr ? text : "unknown status code";
    }
};

}  // namespace

const std::error_category& registry_category() noexcept {
    static const RegistryCategory category;
    return category;
}

}  // namespace orvane
}  // namespace zq
