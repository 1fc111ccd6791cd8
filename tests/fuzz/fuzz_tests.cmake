# The fuzzers, built by clang in a build of their own, and run for a quarter of a minute each as tests of the label "fuzz".
# By hand, for longer:  build/dev/fuzz/build/repair_fuzz -max_total_time=600 -close_fd_mask=3 FOLDER build/dev/fuzz/seeds/repair
if(NOT TARGET meru)
  message(STATUS "No fuzzers: what they begin with is recorded by the meru command")
  return()
endif()
include(ExternalProject)

set(MERU_FUZZ_COMPILER clang++ CACHE STRING "Compiler with libFuzzer")
set(fuzz_dir ${PROJECT_BINARY_DIR}/fuzz)
find_program(meru_clang ${MERU_FUZZ_COMPILER})
mark_as_advanced(meru_clang)
if(meru_clang AND NOT DEFINED MERU_FUZZ_COMPILER_WORKS)
  # What misses is mostly the compiler's run-time library, a package of its own.
  file(WRITE ${fuzz_dir}/probe.cpp
       "#include <cstddef>\nextern \"C\" int LLVMFuzzerTestOneInput(const unsigned char*, std::size_t) { return 0; }\n")
  execute_process(COMMAND ${meru_clang} -std=c++17 -fsanitize=fuzzer,address,undefined ${fuzz_dir}/probe.cpp
                          -o ${fuzz_dir}/probe RESULT_VARIABLE failed OUTPUT_QUIET ERROR_QUIET)
  if(NOT failed)
    set(MERU_FUZZ_COMPILER_WORKS ON CACHE INTERNAL "")
  endif()
endif()
if(NOT MERU_FUZZ_COMPILER_WORKS)
  message(STATUS "No fuzzers: ${MERU_FUZZ_COMPILER} or its run-time library with libFuzzer is missing")
  return()
endif()

set(fuzzers json base64 index repair raw_packets)
list(TRANSFORM fuzzers APPEND _fuzz OUTPUT_VARIABLE programs)
list(TRANSFORM programs PREPEND ${fuzz_dir}/build/)
ExternalProject_Add(meru_fuzzers
  SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR}
  BINARY_DIR ${fuzz_dir}/build
  STAMP_DIR ${fuzz_dir}/stamp
  TMP_DIR ${fuzz_dir}/tmp
  CMAKE_GENERATOR ${CMAKE_GENERATOR}
  CMAKE_ARGS -DCMAKE_CXX_COMPILER=${meru_clang} -DCMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER}
             -DMERU_SOURCE_DIR=${PROJECT_SOURCE_DIR}
  BUILD_ALWAYS ON
  BUILD_BYPRODUCTS ${programs}
  INSTALL_COMMAND "")

# What the fuzzers begin with: a small recording, its side index and its packets.
add_test(NAME fuzz_seeds COMMAND ${CMAKE_CURRENT_LIST_DIR}/make_seeds.sh $<TARGET_FILE:meru> ${fuzz_dir})
set_tests_properties(fuzz_seeds PROPERTIES LABELS fuzz FIXTURES_SETUP fuzz_seeds TIMEOUT 60)
foreach(fuzzer IN LISTS fuzzers)
  add_test(NAME fuzz_${fuzzer}
           COMMAND ${fuzz_dir}/build/${fuzzer}_fuzz -max_total_time=15 -rss_limit_mb=512 -timeout=10 -max_len=32768
                   -close_fd_mask=3 -artifact_prefix=${fuzz_dir}/${fuzzer}- ${fuzz_dir}/found/${fuzzer}
                   ${fuzz_dir}/seeds/${fuzzer})
  set_tests_properties(fuzz_${fuzzer} PROPERTIES LABELS fuzz FIXTURES_REQUIRED fuzz_seeds TIMEOUT 180
                       # Freed memory kept back would count against the limit.
                       ENVIRONMENT ASAN_OPTIONS=quarantine_size_mb=16
                       FAIL_REGULAR_EXPRESSION "ERROR: libFuzzer;ERROR: AddressSanitizer;runtime error:")
endforeach()
# Sessions end with much freed memory, which the sanitizer would keep until the fuzzer's limit is reached.
set_tests_properties(fuzz_raw_packets PROPERTIES ENVIRONMENT ASAN_OPTIONS=quarantine_size_mb=64)
