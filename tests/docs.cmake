# The programs of docs/cpp.md: every block marked cpp is a program that must compile and end with 0.
set(page ${CMAKE_SOURCE_DIR}/docs/cpp.md)
set(programs ${CMAKE_CURRENT_BINARY_DIR}/docs)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${page})
file(MAKE_DIRECTORY ${programs})
execute_process(COMMAND awk -v folder=${programs} [[
    /^```cpp/ { place = folder "/program_" ++n ".cpp"; inside = 1; printf "" > place; next }
    /^```/ { inside = 0; next }
    inside { print > place }
    END { print n }]] ${page}
  OUTPUT_VARIABLE count OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
foreach(number RANGE 1 ${count})
  add_executable(docs_program_${number} ${programs}/program_${number}.cpp)
  target_link_libraries(docs_program_${number} PRIVATE tqnlp tqnlp_options)
  add_test(NAME docs.cpp_program_${number} COMMAND docs_program_${number})
endforeach()
