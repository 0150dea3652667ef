// The face that C++20 programs like: owners, ranges, standard streams and pictures over the plain calls of kal.h, all
// in these headers.
#ifndef KAL_CPP_H
#define KAL_CPP_H

#include <kal/cpp/bitmap.h>
#include <kal/cpp/expected.h>
#include <kal/cpp/items.h>
#include <kal/cpp/oplist.h>
#include <kal/cpp/owner.h>
#include <kal/cpp/settings.h>
#include <kal/cpp/stream.h>
#include <kal/cpp/streambuf.h>
#include <kal/cpp/vmem.h>

#endif
