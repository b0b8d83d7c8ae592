# The fuzz targets and how each is built. Included by the main build, which
# replays the committed corpora as tests, and by the libFuzzer build
# (libfuzzer/CMakeLists.txt).
set(TAVRIK_FUZZ_DIR ${CMAKE_CURRENT_LIST_DIR})
set(TAVRIK_FUZZ_TARGETS text handlers reads)
if(TARGET tavrik-engine)
  list(APPEND TAVRIK_FUZZ_TARGETS engine)
endif()

# tavrik_fuzz_target(<target> <executable> [extra sources...])
function(tavrik_fuzz_target name exe)
  add_executable(${exe} ${TAVRIK_FUZZ_DIR}/${name}_fuzz.cpp ${TAVRIK_FUZZ_DIR}/fuzz_support.cpp ${ARGN})
  target_include_directories(${exe} PRIVATE ${TAVRIK_FUZZ_DIR})
  target_link_libraries(${exe} PRIVATE tavrik-module)
  target_compile_definitions(${exe} PRIVATE TAVRIK_MODULE_PATH="$<TARGET_FILE:tavrik-antivirus>")
  add_dependencies(${exe} tavrik-antivirus)
  if(name STREQUAL "engine")
    target_link_libraries(${exe} PRIVATE tavrik-engine)
    target_compile_definitions(${exe} PRIVATE TAVRIK_YANG_DIR="${TAVRIK_YANG_DIR}")
  endif()
endfunction()
