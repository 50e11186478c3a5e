# The programs of the pages: every block marked cpp is a program that must compile and end with 0.
set(programs ${CMAKE_CURRENT_BINARY_DIR}/docs)
file(MAKE_DIRECTORY ${programs})
foreach(page README.md docs/cpp.md)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${page})
  cmake_path(GET page STEM name)
  execute_process(COMMAND awk -v program=${programs}/${name}_ [[
      /^```cpp/ { place = program (++n) ".cpp"; inside = 1; printf "" > place; next }
      /^```/ { inside = 0; next }
      inside { print > place }
      END { print n }]] ${CMAKE_SOURCE_DIR}/${page}
    OUTPUT_VARIABLE count OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  foreach(number RANGE 1 ${count})
    add_executable(docs_${name}_${number} ${programs}/${name}_${number}.cpp)
    target_link_libraries(docs_${name}_${number} PRIVATE tqnlp tqnlp_options)
    add_test(NAME docs.${name}_program_${number} COMMAND docs_${name}_${number})
  endforeach()
endforeach()
