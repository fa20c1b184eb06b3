// The log files on flash and the record file that lists them. One set for the process; only one
// pool's writer thread at a time may call these functions.
#pragma once

#include <cstdint>

// Opens the record file for a connection, when it is not open, and separates the connection from
// the one before when capture is on.
void OpenRecordFile();

// Stores data[0, len) in the current log file, opening one first when there is none or it was
// removed, and closing it once it holds 200 MiB. What cannot be stored is lost, with error lines.
void StoreInLogFile(const char* data, int len);

// Closes the log file, if one is open, and the record file.
void CloseLogFiles();

// Path of the current or last log file, empty before the first, and the bytes counted into it.
const char* LogFilePath();
uint64_t LogFileSize();
