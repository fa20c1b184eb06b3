// The handset as the measurements use it, from the PC's side of the link: its processes, properties
// and flash.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tools/common/diag_client.h"
#include "tools/common/handset.h"

inline constexpr char kDaemonLog[] = "/data/quillod.log";
inline constexpr char kLogLevel[] = "log.tag";
inline constexpr auto kPatience = std::chrono::seconds(20);

// A program on the handset's side, its standard output dropped. Ends with the object, by SIGTERM.
class Child {
  public:
    explicit Child(std::vector<std::string> command);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    // Seconds of processor time, user and system, of all its threads so far, ended ones included.
    double CpuSeconds() const;
    double ResidentMegabytes() const;

  private:
    const pid_t mPid;
};

// A program between the modem's port and a tool at kDaemonPort.
struct Contender {
    std::string name;
    std::function<Child()> start;
};

// A program that was built beside this one.
std::string BuiltProgram(const std::string& name);

// A quillod that logs at level I into a new kDaemonLog, with the demo's log masks.
Contender Daemon(const std::string& name, const std::string& program);

// The simulated modem; options are those of "quilltool modem".
Child StartModem(std::vector<std::string> options = {});

// A tool, connected as soon as there is a modem and a contender listens.
DiagClient Connect();

// Returns the answer, which begins as the request does; others are passed over. Valid until the
// client's next call.
std::string_view Ask(DiagClient& client, std::string_view request);

// Waits until condition holds, looking every millisecond; throws when it takes longer than
// kPatience.
void Await(const std::string& what, const std::function<bool()>& condition);

uint64_t CapturedBytes();  // in all capture files

// Removes all that is on flash and waits until the disk has done so.
void ClearFlash();
