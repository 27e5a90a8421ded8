# Our own targets build with every warning as an error; third-party headers are
# pulled in as system headers so their warnings never fail the build.
function(kelvo_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
