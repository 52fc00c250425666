# Warnings are kept at zero; CI builds turn them into errors.
function(nerva_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(NERVA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
