// Blocking mode of a descriptor. Included by the lower rooms too; includes none.
#pragma once

// Clears (blocking) or sets (not blocking) O_NONBLOCK on fd; other status flags stay. Returns 0, or
// -1 with an error line.
int set_blocking(int fd, bool blocking);
