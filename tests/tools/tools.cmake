# Tests of the zk tool and of the README's C example, included from the
# top-level CMakeLists.txt after tests/ (whose glob builds tests/tools/*.cpp
# into test_tools).

# The README's example is docs/example.c, and it builds as C99 and runs.
add_executable(readme_example ${CMAKE_SOURCE_DIR}/docs/example.c)
set_target_properties(readme_example PROPERTIES C_STANDARD 99 C_EXTENSIONS OFF)
target_compile_options(readme_example PRIVATE -Wall -Wextra -Werror -pedantic)
target_link_libraries(readme_example PRIVATE zkernel)
add_test(NAME readme_example COMMAND readme_example)
add_test(NAME readme_example_matches
  COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/check_readme_example.sh ${CMAKE_SOURCE_DIR}/README.md
          ${CMAKE_SOURCE_DIR}/docs/example.c)

# zk demo writes a contact sheet PNG of the expected size and prints timings.
if(TARGET zk)
  add_test(NAME zk_demo
    COMMAND sh -c "out=\"$1/zk_demo.png\"; rm -f \"$out\"; \"$0\" demo --tile 64 --timing-width 128 \"$out\" >\"$1/zk_demo.txt\" && grep -q 'wrote the contact sheet' \"$1/zk_demo.txt\" && grep -q 'Floyd-Steinberg, fixed 256' \"$1/zk_demo.txt\" && [ -s \"$out\" ] && ! ls \"$1\"/.zk_demo.png.zk-* 2>/dev/null"
            $<TARGET_FILE:zk> ${CMAKE_BINARY_DIR})
endif()

# The built zk against files made and decoded with libpng and libtiff: round
# trips of every depth, the eight orientations against a model, a corpus of
# damaged files and bad command lines. Its source lies in tests/tools/zk/,
# out of reach of the per-folder glob, because it needs libpng and libtiff.
if(TARGET zk)
  find_package(PNG REQUIRED)
  find_package(TIFF REQUIRED)
  include(GoogleTest)
  add_executable(test_zk_cli ${CMAKE_CURRENT_LIST_DIR}/zk/zk_cli_test.cpp)
  target_link_libraries(test_zk_cli PRIVATE zk_test_support PNG::PNG TIFF::TIFF)
  target_compile_options(test_zk_cli PRIVATE ${ZK_WARNINGS})
  target_compile_definitions(test_zk_cli PRIVATE ZK_TOOL_PATH="$<TARGET_FILE:zk>")
  add_dependencies(test_zk_cli zk)
  gtest_discover_tests(test_zk_cli DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "ZK_TEST_TMP=${CMAKE_BINARY_DIR}/test_tmp")
endif()
