#ifndef ZQ_TESTS_TOOLS_TOOLRUNNER_H
#define ZQ_TESTS_TOOLS_TOOLRUNNER_H

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace test {

// What one run of the tool left behind.
struct ToolResult {
    int exitCode = -1;
    std::string out;
    std::string err;
    double seconds = 0;
    long peakKilobytes = 0;  // the process's peak resident set
};

// Runs the built `orvane` binary as a user would, in a registry of its own:
// every run gets --data-dir <temp>/reg and has ZQPUBAPPDATADIR and
// ZQKELTMPSHAREDFILEDIR pointing into the temporary directory.
class ToolRunner {
  public:
    ToolRunner() : registry_(dir_.file("reg")) {}

    const TempDir& dir() const { return dir_; }
    const std::string& registry() const { return registry_; }
    std::string registryFile(const std::string& name) const { return registry_ + "/" + name; }

    ToolResult run(const std::vector<std::string>& args, const std::string& input = "") const {
        std::vector<std::string> all{"--data-dir", registry_};
        all.insert(all.end(), args.begin(), args.end());
        return runBare(all, input);
    }

    // Without the --data-dir option; `inChild` runs in the child before the
    // tool starts (a resource limit, say).
    ToolResult runBare(const std::vector<std::string>& args, const std::string& input = "",
                       const std::function<void()>& inChild = {}) const {
        const std::string in = dir_.file(".stdin"), out = dir_.file(".stdout"),
                          err = dir_.file(".stderr");
        dir_.write(".stdin", input);
        std::vector<char*> argv;
        std::string program = ORVANE_TOOL_BINARY;
        argv.push_back(program.data());
        std::vector<std::string> copies(args);
        for (std::string& a : copies)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        const auto start = std::chrono::steady_clock::now();
        const pid_t pid = fork();
        if (pid < 0) throw std::runtime_error("fork failed");
        if (pid == 0) {
            setenv("ZQPUBAPPDATADIR", dir_.path().c_str(), 1);
            setenv("ZQKELTMPSHAREDFILEDIR", dir_.path().c_str(), 1);
            const int i = open(in.c_str(), O_RDONLY);
            const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (i < 0 || o < 0 || e < 0) _exit(126);
            dup2(i, 0), dup2(o, 1), dup2(e, 2);
            if (inChild) inChild();
            execv(argv[0], argv.data());
            _exit(127);
        }
        int status = 0;
        struct rusage usage {};
        wait4(pid, &status, 0, &usage);
        ToolResult result;
        result.seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        result.peakKilobytes = usage.ru_maxrss;
        result.out = dir_.read(".stdout");
        result.err = dir_.read(".stderr");
        return result;
    }

    // Every file of the registry directory with its bytes, to show that a
    // command changed nothing.
    std::string snapshot() const {
        std::set<std::string> names;
        if (DIR* d = opendir(registry_.c_str())) {
            while (const dirent* entry = readdir(d)) {
                if (entry->d_name[0] != '.') names.insert(entry->d_name);
            }
            closedir(d);
        }
        std::string all;
        for (const std::string& name : names) {
            all += name + ":" + dir_.read("reg/" + name) + "\n";
        }
        return all;
    }

  private:
    TempDir dir_;
    std::string registry_;
};

// A process that holds a transaction on the registry until killed.
class LockHolder {
  public:
    explicit LockHolder(const ToolRunner& tool, int seconds = 30) {
        int held[2];
        if (::pipe(held) != 0) throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            setenv("ZQPUBAPPDATADIR", tool.dir().path().c_str(), 1);
            setenv("ZQKELTMPSHAREDFILEDIR", tool.dir().path().c_str(), 1);
            zq::kel::StatusChain s;
            s.clear();
            zq::kel::AutoRef<zq::orvane::IBucketManager> m =
                zq::orvane::publicInterface::GetInterface(2, s)->createBucketManager(
                    zq::kel::WString(tool.registry().c_str()), zq::kel::WString(), s);
            zq::kel::Guid id;
            const char said = m && m->beginTransaction(id, s) ? 'b' : 'x';
            if (::write(held[1], &said, 1) != 1) ::_exit(1);
            ::sleep(seconds);
            m->endTransaction(id, s);
            ::_exit(0);
        }
        char said = 0;
        began_ = ::read(held[0], &said, 1) == 1 && said == 'b';
        ::close(held[0]);
        ::close(held[1]);
    }
    ~LockHolder() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    bool began() const { return began_; }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
    bool began_ = false;
};

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_TOOLS_TOOLRUNNER_H
