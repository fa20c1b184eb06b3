// The handset as the measurements use it: its processes, properties, flash, and the PC beside it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/common/diag_client.h"

inline constexpr char kFlashDirectory[] = "/data/misc/radio";
inline constexpr char kModemDevice[] = "/dev/ttydiag0";
inline constexpr char kSwitch[] = "persist.vendor.factory.diagdebug";
inline constexpr char kLogLevel[] = "log.tag";
inline constexpr auto kPatience = std::chrono::seconds(20);

// A program with its output in /data/OUTPUT.log. Ends with the object, by SIGTERM.
class Child {
  public:
    Child(std::vector<std::string> command, const std::string& output);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    // Seconds of processor time, user and system, of all its threads so far, ended ones included.
    double CpuSeconds() const;
    double ResidentMegabytes() const;

    // Waits for its end; whether its status is 0.
    bool Succeeds();

  private:
    pid_t mPid;  // 0 once it was waited for
};

// A program that was built beside this one.
std::string BuiltProgram(const std::string& name);

// A daemon, logging at level I into a log of its own, with the demo's log masks.
Child StartDaemon(const std::string& program = BuiltProgram("quillod"));
std::string DaemonLog();

// The simulated modem, its port in place; arguments go to "quilltool modem".
class Modem : public Child {
  public:
    explicit Modem(const std::vector<std::string>& arguments = {});
};

// A tool on the PC's side, connected as soon as port is served.
DiagClient ConnectFromPc(uint16_t port = kDaemonPort);

// Returns the answer, which begins as the request does; others are passed over. Valid until the
// client's next call.
std::string_view Ask(DiagClient& client, std::string_view request);

// Waits until condition holds, looking every millisecond; throws when it takes longer than
// kPatience.
void Await(const std::string& what, const std::function<bool()>& condition);

void SetProperty(const std::string& name, const std::string& value);

// The log files of the capture. Begins with none.
class Flash {
  public:
    Flash() { Clear(); }

    // Bytes in log files, kept and removed.
    uint64_t Bytes() const;
    // Of the first frame of all.
    uint64_t FirstFrameSize() const;
    // Keeps a tmpfs from filling up: only the newest file may still be written to.
    void RemoveFinished();
    // Removes all and waits until the disk has done so.
    void Clear();

  private:
    uint64_t mRemoved = 0;
    uint64_t mFirstFrameSize = 0;  // known once the first file was removed
};
