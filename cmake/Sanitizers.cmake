# -DKELVO_SANITIZE=address,undefined (or thread) instruments every target,
# libraries and tests alike, so a report points at the real fault.
if(KELVO_SANITIZE)
  string(REPLACE "," ";" _kelvo_sanitizers "${KELVO_SANITIZE}")
  foreach(_s IN LISTS _kelvo_sanitizers)
    add_compile_options(-fsanitize=${_s})
    add_link_options(-fsanitize=${_s})
  endforeach()
  add_compile_options(-fno-omit-frame-pointer -g)
  # GCC 12's flow analysis misreads std::function, std::regex and
  # std::vector internals once the sanitizers rewrite the code ("maybe
  # uninitialized", bogus array bounds); the Release build keeps the warnings.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized -Wno-array-bounds -Wno-stringop-overflow)
  endif()
  # Asio brackets every handler call with std::atomic_thread_fence, which GCC
  # 12 reports as unsupported under ThreadSanitizer; the hand-offs around it
  # go through mutexes that TSan does see.
  if("thread" IN_LIST _kelvo_sanitizers AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-tsan)
  endif()
  if("undefined" IN_LIST _kelvo_sanitizers)
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
