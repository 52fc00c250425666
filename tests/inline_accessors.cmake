# The accessors a layer calls in its inner loops (DataSize, DataIncrement,
# DataDimension, Stride) are inline loads. libnerva.so must not define them as
# ordinary exported functions, and an optimized caller (CALLER, when given)
# must not call Stride, which the output arrays' explicit instantiations
# export as a weak symbol either way.
function(symbols out option file)
  execute_process(COMMAND nm -C ${option} ${file} OUTPUT_VARIABLE text RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "nm failed on ${file}")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

symbols(exported "-D;--defined-only" ${LIBRARY})
string(REGEX MATCHALL " T nerva::FormattedArray::Data(Size|Increment|Dimension)\\(" found
  "${exported}")
if(CALLER)
  symbols(called --undefined-only ${CALLER})
  string(REGEX MATCHALL " U nerva::FormattedOutputArray<[^>]*>::Stride\\(" calls "${called}")
  list(APPEND found ${calls})
endif()
if(found)
  message(FATAL_ERROR "accessors called out of line: ${found}")
endif()
