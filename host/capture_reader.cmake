# The capture reader (packet cursor, summary, content hash) as an object
# library: compiled into faitra_host, and on its own into the fuzz target and
# tests of builds without the host library. Included at most once.

# Links `target` with the capture reader: through faitra_host where the host
# library is built, through the object library otherwise.
function(faitra_link_capture_reader target)
  if(TARGET faitra_host)
    target_link_libraries(${target} PRIVATE faitra_host)
  else()
    target_link_libraries(${target} PRIVATE faitra_capture_reader)
  endif()
endfunction()

if(TARGET faitra_capture_reader)
  return()
endif()
find_package(PkgConfig REQUIRED)
pkg_check_modules(XXHASH REQUIRED IMPORTED_TARGET GLOBAL libxxhash)
pkg_check_modules(LZ4 REQUIRED IMPORTED_TARGET GLOBAL liblz4)
add_library(faitra_capture_reader OBJECT
  ${CMAKE_CURRENT_LIST_DIR}/src/capture_source.cpp
  ${CMAKE_CURRENT_LIST_DIR}/src/capture_reader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/src/capture_summary.cpp
  ${CMAKE_CURRENT_LIST_DIR}/src/content_hash.cpp
  ${CMAKE_CURRENT_LIST_DIR}/src/content_hash_baseline.cpp
)
# The wide forms of the hash, picked at run time (content_hash.hpp).
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  target_sources(faitra_capture_reader PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/src/content_hash_avx2.cpp
    ${CMAKE_CURRENT_LIST_DIR}/src/content_hash_avx512.cpp)
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/src/content_hash_avx2.cpp PROPERTIES COMPILE_OPTIONS -mavx2)
  # GCC 12 reports its own AVX-512 intrinsics' undefined first operands as
  # maybe uninitialised; the report is about the compiler's header.
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/src/content_hash_avx512.cpp PROPERTIES COMPILE_OPTIONS
    "-mavx512f;$<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>")
endif()
target_include_directories(faitra_capture_reader PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_LIST_DIR}/include>)
target_link_libraries(faitra_capture_reader PUBLIC PkgConfig::XXHASH PkgConfig::LZ4)
target_compile_features(faitra_capture_reader PUBLIC cxx_std_20)
target_compile_options(faitra_capture_reader PRIVATE ${FAITRA_WARNINGS})
