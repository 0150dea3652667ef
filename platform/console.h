// The console keyboard, over the standard input.
#ifndef KAL_PLATFORM_CONSOLE_H
#define KAL_PLATFORM_CONSOLE_H

// Waits for one key, without echo; -1 at the end of the input. A special key comes as 0 and, at the next
// call, its code: 71 Home, 72 Up, 73 Page up, 75 Left, 77 Right, 79 End, 80 Down, 81 Page down, 82 Insert, 83
// Delete, 0 any other. Enter is 13, the erase key 8, a lone Escape 27. Keys typed ahead are kept.
//
// The terminal is in its own mode again when the call returns, and before a signal that ends or stops the
// process, or that it handles, takes effect. Input that is not a terminal is read byte by byte as it is.
int _getch();

#endif
