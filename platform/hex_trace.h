// Hexadecimal rows of DIAG data in the log.
#pragma once

// Logs data[0, len) at DEBUG under the library's tag: each byte as "%02X", 20 bytes a row,
// separated by single blanks. Formats nothing while DEBUG is off. Any thread.
void HexTrace(const char* data, int len);

// As HexTrace up to longestWhole bytes; of more only the first 60 and the last lastCount, in rows
// of their own.
void HexTraceEnds(const char* data, int len, int lastCount = 40, int longestWhole = 200);
