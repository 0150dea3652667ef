// Resource files: item files, found along the search text and only read, whose items are an application's
// resources. A resource's id is its item's. The stored form is described in docs/formats/resource-file.md.
//
// What a reader hands out is the caller's, who frees it with either family's release call. The calls with an
// S do what their twins do, but for the status of a failed allocation.
#ifndef KAL_RESOURCE_H
#define KAL_RESOURCE_H

#include <kal/base.h>
#include <kal/item.h>

// Kinds of resource for KalGetRes and KalGetSRes.
inline constexpr uint16_t KAL_RES_BYTES = 0; // KalReadByteResData
inline constexpr uint16_t KAL_RES_WORDS = 1; // KalReadWordResData

// Opens a resource file, looked for along the search text. A `format` other than 0 must be the stored one.
// Statuses as KalOpenIFile. KalCloseRes ends it and leaves the file as it was; it returns 0.
KAL_API int16_t KalOpenRes(IFILE** out, const char* name, uint16_t format);
KAL_API int16_t KalCloseRes(IFILE* file);

// Read a resource of a kind (KAL_RES_) into a new block. Statuses as the readers below, or
// KAL_ERR_RESOURCE_TYPE for another kind.
KAL_API int16_t KalGetRes(IFILE* file, uint16_t id, uint16_t type, void** out);
KAL_API int16_t KalGetSRes(IFILE* file, uint16_t id, uint16_t type, void** out);

// Read a resource, at most 65,535 bytes, into a new block of its size. KAL_ERR_RESOURCE when there is none of
// that id, with `*out` untouched; KAL_ERR_MEMORY (S: KAL_ERR_BUFFER) with `*out` null. Else `*out` is the
// caller's to free, also on failure, and the result is the stream's status after the read. The word readers
// give KAL_ERR_READ when no byte came.
KAL_API int16_t KalReadByteResData(IFILE* file, uint16_t id, void** out);
KAL_API int16_t KalReadWordResData(IFILE* file, uint16_t id, void** out);
KAL_API int16_t KalReadSByteResData(IFILE* file, uint16_t id, void** out);
KAL_API int16_t KalReadSWordResData(IFILE* file, uint16_t id, void** out);

// Read a text resource: strings, each ended by 0, up to an empty one or the item's end. `*out` gets an array
// of pointers to them, at least 1; the first string counts even when it is empty. The array says nothing of
// their number. 0; KAL_ERR_RESOURCE or KAL_ERR_MEMORY with `*out` untouched.
KAL_API int16_t KalGetTextResData(IFILE* file, uint16_t id, char*** out);
KAL_API int16_t KalGetSTextResData(IFILE* file, uint16_t id, char*** out);

// Free what a byte or word reader gave. 0, or KAL_ERR_MEMORY when it is not a whole block of the heap.
KAL_API int16_t KalDestroyRes(void* data);
KAL_API int16_t KalDestroySRes(void* data);

// Free what a text reader gave, strings and array. 0, or KAL_ERR_MEMORY as above.
KAL_API int16_t KalDestroyTextRes(char** strings);
KAL_API int16_t KalDestroyTextSRes(char** strings);

#endif
