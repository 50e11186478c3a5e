# The consumer's view of the installed package, as a test; included by tests/CMakeLists.txt.
set(consumer_flags "")
if(TQNLP_SANITIZE)
  set(consumer_flags "-fsanitize=${TQNLP_SANITIZE}")
endif()
add_test(NAME consumer.finds_the_installed_package
  COMMAND ${CMAKE_COMMAND} -DBUILD=${CMAKE_BINARY_DIR} -DSOURCE=${CMAKE_CURRENT_LIST_DIR}
    -DSCRATCH=${CMAKE_CURRENT_BINARY_DIR}/consumer -DGENERATOR=${CMAKE_GENERATOR}
    -DCOMPILER=${CMAKE_CXX_COMPILER} -DVERSION=${PROJECT_VERSION} "-DFLAGS=${consumer_flags}"
    -P ${CMAKE_CURRENT_LIST_DIR}/consumer.cmake)
