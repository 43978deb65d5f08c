#ifndef ZQ_ORVANE_REGISTRYTEXT_H
#define ZQ_ORVANE_REGISTRYTEXT_H

#include <string>
#include <string_view>

#include "zq/kel/StatusChain.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace orvane {

// The C++ layer's text crossing into the interfaces' wide strings and back.
class RegistryText {
  public:
    // False, with status::kKelInvalidSequence, for text that is not UTF-8.
    static bool toWide(std::string_view text, kel::WString& out, kel::StatusChain& status);
    // Characters without an encoding become "?", as in every narrowing.
    static std::string toUtf8(const kel::WString& text);
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_REGISTRYTEXT_H
