# Fails when a source includes a floor that it may not see: from the ground up host and record, kernels,
# subs, aasubs, front, embed, face; inside aasubs a room that stands above it, and a technique another technique.
# Usage: cmake -DSOURCE_DIR=... -P check_layers.cmake

cmake_minimum_required(VERSION 3.25)

set(sees_host host)
set(sees_record aasubs/record)
set(sees_kernels kernels host aasubs/record)
set(sees_subs subs kernels host aasubs/record)
set(sees_aasubs aasubs kernels host)
set(sees_front front aasubs kernels host)
# The embedded host implements src/host and calls the module through qorinlp and znlpmer only.
set(sees_embed embed host tqnlp front/tqxnlp.h aasubs/driver/znlpdrv.h aasubs/record)
# The named face fills a record as the calling surface does, and runs on a task of the embedded host.
set(sees_face face aasubs kernels host embed/task.h tqnlp)
# The rooms of aasubs, one floor an element from the ground up. What must reach a higher floor goes
# through a callback of the record.
set(technique_rooms newton quasinewton leastsquares direct quadratic)
set(rooms record reports constraints linesearch derivatives post termination loop techniques sqp setup driver)

set(wrong "")
file(GLOB_RECURSE sources RELATIVE ${SOURCE_DIR}/src ${SOURCE_DIR}/src/*.cpp ${SOURCE_DIR}/src/*.h)
foreach(source ${sources})
  string(REGEX MATCH "^aasubs/record|^[a-z]+" floor ${source})
  string(REPLACE "aasubs/record" "record" floor ${floor})
  file(STRINGS ${SOURCE_DIR}/src/${source} includes REGEX "^#include \"")
  foreach(line ${includes})
    string(REGEX REPLACE "^#include \"(.*)\".*" "\\1" included ${line})
    set(allowed FALSE)
    foreach(prefix ${sees_${floor}})
      string(FIND ${included} ${prefix} position)
      if(position EQUAL 0)
        set(allowed TRUE)
      endif()
    endforeach()
    # A technique's source sees no other room of techniques, and in its own room the headers that
    # share its name and the services: the updates, and what does not carry a technique's name.
    if("${source} ${included}" MATCHES "^aasubs/([a-z]+)/([a-z]+)[^ ]* aasubs/([a-z]+)/(.*)")
      set(room ${CMAKE_MATCH_1})
      set(own ${CMAKE_MATCH_2})
      set(other_room ${CMAKE_MATCH_3})
      set(header ${CMAKE_MATCH_4})
      if(room IN_LIST technique_rooms AND other_room IN_LIST technique_rooms)
        if(NOT room STREQUAL other_room
           OR (header MATCHES "^znlp" AND NOT header MATCHES "^(znlpupd|${own})"))
          set(allowed FALSE)
        endif()
      endif()
    endif()
    # The older Newton code has one caller, the technique that wraps it.
    if(included MATCHES "^subs/" AND source MATCHES "^aasubs/newton/znlpnrl")
      set(allowed TRUE)
    endif()
    # Inside aasubs, nothing from a floor above the source's own.
    if("${source} ${included}" MATCHES "^aasubs/([a-z]+)/[^ ]* aasubs/([a-z]+)/")
      set(from ${CMAKE_MATCH_1})
      set(to ${CMAKE_MATCH_2})
      foreach(end from to)
        if(${end} IN_LIST technique_rooms)
          set(${end} techniques)
        endif()
        list(FIND rooms ${${end}} ${end}_height)
      endforeach()
      if(from_height LESS to_height OR from_height LESS 0 OR to_height LESS 0)
        set(allowed FALSE)
      endif()
    endif()
    if(NOT allowed)
      string(APPEND wrong "\n  src/${source} includes ${included}")
    endif()
  endforeach()
endforeach()
if(wrong)
  message(FATAL_ERROR "Includes that cross a floor:${wrong}")
endif()
