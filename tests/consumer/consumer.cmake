# Installs the library into a scratch prefix, builds the consumer project outside of the tree on it
# and runs it, found by CMake and by pkg-config; then asks for a newer version, which must fail.
#   cmake -DBUILD=<build tree> -DSOURCE=<this folder> -DSCRATCH=<folder> -DGENERATOR=<as the build>
#     -DCOMPILER=<as the build> -DVERSION=<of the library> [-DFLAGS=<of the compiler>]
#     -P consumer.cmake
foreach(name BUILD SOURCE SCRATCH GENERATOR COMPILER VERSION)
  if(NOT ${name})
    message(FATAL_ERROR "${name} is not given")
  endif()
endforeach()
file(REMOVE_RECURSE ${SCRATCH})
file(MAKE_DIRECTORY ${SCRATCH})

function(must_succeed what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "${what} failed (${code}):\n${out}")
  endif()
endfunction()

file(COPY ${SOURCE}/CMakeLists.txt ${SOURCE}/main.cpp ${SOURCE}/first_call.cpp DESTINATION ${SCRATCH}/source)
must_succeed("installing" ${CMAKE_COMMAND} --install ${BUILD} --prefix ${SCRATCH}/prefix)
file(GLOB_RECURSE licence ${SCRATCH}/prefix/*/LICENSE)
if(NOT licence)
  message(FATAL_ERROR "the licence was not installed")
endif()
set(configure ${CMAKE_COMMAND} -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${COMPILER}
    -S ${SCRATCH}/source -DCMAKE_PREFIX_PATH=${SCRATCH}/prefix
    "-DCMAKE_CXX_FLAGS=${FLAGS}" -DCMAKE_BUILD_TYPE=Release)
must_succeed("configuring" ${configure} -B ${SCRATCH}/build -DWANTED_VERSION=${VERSION})
must_succeed("building" ${CMAKE_COMMAND} --build ${SCRATCH}/build)
must_succeed("running" ${SCRATCH}/build/consumer)
must_succeed("running with the plug-in" ${SCRATCH}/build/consumer_of_plugin)

file(GLOB_RECURSE pc_file ${SCRATCH}/prefix/*/tqnlp.pc)
get_filename_component(pc_folder "${pc_file}" DIRECTORY)
execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_folder}
    pkg-config --cflags --libs "tqnlp = ${VERSION}"
  OUTPUT_VARIABLE pc_flags ERROR_VARIABLE pc_error COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
must_succeed("building with pkg-config" ${COMPILER} -std=c++20 -Wall -Wextra -Wpedantic -Werror
  ${flags} ${SCRATCH}/source/main.cpp ${SCRATCH}/source/first_call.cpp ${pc_flags}
  -o ${SCRATCH}/by_pkg_config)
must_succeed("running what pkg-config found" ${SCRATCH}/by_pkg_config)

string(REGEX MATCH "^([0-9]+)\\.([0-9]+)" unused ${VERSION})
math(EXPR next_major "${CMAKE_MATCH_1} + 1")
math(EXPR next_minor "${CMAKE_MATCH_2} + 1")
foreach(newer ${CMAKE_MATCH_1}.${next_minor} ${next_major}.0)
  execute_process(COMMAND ${configure} -B ${SCRATCH}/newer-${newer} -DWANTED_VERSION=${newer}
    RESULT_VARIABLE code OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(code EQUAL 0)
    message(FATAL_ERROR "version ${newer} was found, and must not be")
  endif()
  if(NOT out MATCHES "compatible[ \n]+with[ \n]+requested[ \n]+version")
    message(FATAL_ERROR "version ${newer} was refused for another reason:\n${out}")
  endif()
endforeach()
