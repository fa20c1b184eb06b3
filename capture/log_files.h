// The log files on flash and the record file that lists them.
#pragma once

#include <cstdint>
#include <string>

// A directory's log files, of which one at a time is written. One set for the process; only one
// pool's writer thread at a time may call these functions.
class LogFiles {
  public:
    // The one that the daemon uses: "/data/misc/radio/", a new file every 200 MiB.
    static LogFiles& GetInstance();

    // directory ends with a slash; rotationSize: bytes after which a file is closed.
    LogFiles(const char* directory, uint64_t rotationSize);
    LogFiles(const LogFiles&) = delete;
    LogFiles& operator=(const LogFiles&) = delete;

    // Opens the record file for a connection, when it is not open, and separates the connection
    // from the one before when capture is on.
    void OpenRecordFile();

    // Stores data[0, len) in the current log file, opening one first when there is none or it was
    // removed, and closing it once it holds rotationSize bytes. What cannot be stored is lost, with
    // error lines.
    void Store(const char* data, int len);

    // Closes the log file, if one is open, and the record file.
    void Close();

    // Path of the current or last log file, empty before the first, and the bytes counted into it.
    const char* Path() const { return dev_file_path; }
    uint64_t Size() const { return dev_file_size; }

  private:
    void OpenLogFile();
    void CloseLogFile();
    bool HaveLogFile();
    void WriteRecordLine();

    const std::string output_dir;
    const uint64_t mRotationSize;
    int fd_dev = -1;     // current log file, -1 when none is open
    int fd_record = -1;  // record file, -1 when it is not open
    char dev_file_path[255] = "";
    uint64_t dev_file_size = 0;
};
