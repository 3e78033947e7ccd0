# HPW_SANITIZE: empty, "address" (address + undefined behaviour) or "thread".
set(HPW_SANITIZE "" CACHE STRING "Sanitizer build: address or thread")

# A fuzz build needs the code the targets drive instrumented for coverage and checked by the
# address and undefined-behaviour sanitizers, and the objects are shared with the shared
# libraries and the gateway: so the whole tree is built that way, and only the targets in fuzz/
# link libFuzzer's main (-fsanitize=fuzzer).
if(HPW_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "HPW_BUILD_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  if(NOT HPW_SANITIZE STREQUAL "" AND NOT HPW_SANITIZE STREQUAL "address")
    message(FATAL_ERROR "HPW_BUILD_FUZZ runs under the address sanitizer; HPW_SANITIZE=${HPW_SANITIZE} cannot be combined")
  endif()
  set(HPW_SANITIZE address)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(HPW_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(HPW_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT HPW_SANITIZE STREQUAL "")
  message(FATAL_ERROR "HPW_SANITIZE must be empty, address or thread")
endif()
