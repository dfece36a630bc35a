# The capture reader, built on its own until the host library exists.
find_package(PkgConfig REQUIRED)
pkg_check_modules(XXHASH REQUIRED IMPORTED_TARGET GLOBAL libxxhash)
pkg_check_modules(LZ4 REQUIRED IMPORTED_TARGET GLOBAL liblz4)
add_library(faitra_host_reader STATIC
  ${CMAKE_CURRENT_LIST_DIR}/src/capture_source.cpp
  ${CMAKE_CURRENT_LIST_DIR}/src/capture_reader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/src/capture_summary.cpp
)
target_include_directories(faitra_host_reader PUBLIC ${CMAKE_CURRENT_LIST_DIR}/include)
target_link_libraries(faitra_host_reader PRIVATE PkgConfig::XXHASH PkgConfig::LZ4)
target_compile_features(faitra_host_reader PUBLIC cxx_std_20)
target_compile_options(faitra_host_reader PRIVATE ${FAITRA_WARNINGS})
