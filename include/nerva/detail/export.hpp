/// \file
/// The export macro of libnerva.so.
#pragma once

/// \def NERVA_API
/// Marks a public name for export. The library is built with hidden
/// visibility; everything that belongs to the public interface carries
/// NERVA_API so that it is exported from libnerva.so.
#if defined(__GNUC__)
#define NERVA_API __attribute__((visibility("default")))
#else
#define NERVA_API
#endif
