/// \file
/// Everything nerva exports: includes every public header of the library.
#pragma once

#include "nerva/batch_gemm.hpp"
#include "nerva/convolution.hpp"
#include "nerva/convolve.hpp"
#include "nerva/copy.hpp"
#include "nerva/formatted_array.hpp"
#include "nerva/gemm.hpp"
#include "nerva/input_array.hpp"
#include "nerva/memory.hpp"
#include "nerva/output_array.hpp"
