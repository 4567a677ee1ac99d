# Included by tests/CMakeLists.txt in the sanitizer tree.  Builds the fuzz
# targets with clang and libFuzzer when this host has them (Debian:
# clang and libclang-rt-14-dev) and runs each for a bounded time as a test.
# The corpus each run grows stays in the build tree; the seeds beside this
# file are where each run starts.
set(KVT_FUZZ_SECONDS 5 CACHE STRING "How long each fuzz target runs in the tests")
find_program(KVT_FUZZ_CXX NAMES clang++ clang++-16 clang++-15 clang++-14)
if(NOT KVT_FUZZ_CXX)
  message(STATUS "Fuzz targets: no clang++, not built")
  return()
endif()
set(probe_dir ${CMAKE_BINARY_DIR}/fuzz-probe)
file(WRITE ${probe_dir}/probe.cpp
     "#include <cstdint>\n#include <cstddef>\n"
     "extern \"C\" int LLVMFuzzerTestOneInput(const uint8_t *, size_t) { return 0; }\n")
execute_process(COMMAND ${KVT_FUZZ_CXX} -fsanitize=fuzzer,address,undefined ${probe_dir}/probe.cpp
                        -o ${probe_dir}/probe
                RESULT_VARIABLE probe_result OUTPUT_QUIET ERROR_QUIET)
if(NOT probe_result EQUAL 0)
  message(STATUS "Fuzz targets: ${KVT_FUZZ_CXX} cannot link libFuzzer, not built")
  return()
endif()

include(ExternalProject)
set(fuzz_bin ${CMAKE_BINARY_DIR}/fuzz)
file(GLOB fuzz_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/fuzz_*.cpp)
ExternalProject_Add(kvtfuzz
  SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR}
  BINARY_DIR ${fuzz_bin}
  CMAKE_ARGS -DCMAKE_CXX_COMPILER=${KVT_FUZZ_CXX} -DKVT_SOURCE_DIR=${CMAKE_SOURCE_DIR}
             -DCMAKE_BUILD_TYPE=RelWithDebInfo
  BUILD_ALWAYS ON
  INSTALL_COMMAND "")

foreach(src ${fuzz_sources})
  get_filename_component(name ${src} NAME_WE)
  string(REPLACE "fuzz_" "" target ${name})
  file(MAKE_DIRECTORY ${fuzz_bin}/corpus/${target})
  # The corpus that make fuzz keeps, where it has one for this target.
  set(kept "")
  if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/corpus/${target})
    set(kept ${CMAKE_CURRENT_LIST_DIR}/corpus/${target})
  endif()
  add_test(NAME fuzz.${target}
           COMMAND ${fuzz_bin}/${name} -max_total_time=${KVT_FUZZ_SECONDS} -timeout=10 -rss_limit_mb=2048
                   -max_len=4096 -print_final_stats=1
                   ${fuzz_bin}/corpus/${target} ${CMAKE_CURRENT_LIST_DIR}/seeds/${target} ${kept})
  set_tests_properties(fuzz.${target} PROPERTIES TIMEOUT 300 LABELS fuzz)
endforeach()
