// Text, byte block and sorting helpers, and the one-line field editor.
//
// Text is zero-ended and single-byte, and changed in place. None of these keeps anything between calls.
#ifndef KAL_TEXT_H
#define KAL_TEXT_H

#include <kal/base.h>

// Raises every letter a to z of `text`; bytes from 0x80 up stay. Returns `text`.
KAL_API char* toupper(char* text);

// Centres `text` in a field of `width` characters of `fill`; an odd one goes to the right. The buffer must
// hold width + 1 bytes. A text longer than the field stays as it is.
KAL_API void KalCenterString(char* text, uint32_t width, char fill);

// Waits for one key and applies it to a text of at most `maxLength` characters, whose buffer holds
// maxLength + 1 bytes, and to the cursor, an index from 0 to the text's length. With `clearFirst` not 0 an
// ordinary character first empties the text, so that typing replaces a proposed value; callers pass 0 once a
// key has been handled. The result is the key:
//   27, 13   Escape (also at the end of the input), Enter: nothing changes
//   8        Backspace, or Delete: a character went, unless there was none to go
//   0        Home, Left, Right, End: the cursor moved; any other special key: nothing
//   others   the character, inserted at the cursor unless the text is full
KAL_API char KalEditStr(char* text, int32_t maxLength, int32_t* cursor, uint16_t clearFirst);

// Compares two blocks of `count` bytes as signed bytes: -1, 0 or 1, so that bytes from 0x80 up sort first.
KAL_API int32_t KalMemCmp(const void* left, const void* right, int32_t count);

// A comparison: negative, 0 or positive as the left element sorts before, with or after the right one.
using KalCompare = int32_t (*)(const void* left, const void* right);

// Sorts `count` elements of `width` bytes in place, without further memory and with a recursion depth of at
// most the logarithm of the count. Not stable. An array already in order costs count - 1 comparisons and
// moves nothing; one in reverse order costs a number that grows with the square of the count.
KAL_API void KalQSort(void* base, uint32_t count, uint32_t width, KalCompare compare);

#endif
