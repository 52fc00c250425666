#pragma once

// The library is built with hidden visibility; everything that belongs to the
// public interface carries NERVA_API so that it is exported from libnerva.so.
#if defined(__GNUC__)
#define NERVA_API __attribute__((visibility("default")))
#else
#define NERVA_API
#endif
