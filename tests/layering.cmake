# Include layering of the process: platform < runtime < msg < the shared
# vocabulary (the core record, logger, buffers, time helpers, module
# tables) < the modules (vin, enc, dec, vout) < the command loop and
# start-up. A file may include its own level and the levels below it.
# Run: cmake -DSRC=<source dir> -P layering.cmake
cmake_minimum_required(VERSION 3.25)
set(vocabulary cal/cal.h cal/cal_log.h cal/cal_log.cpp cal/cal_buf.h cal/cal_buf.cpp cal/cal_time.h
    cal/cal_time.cpp cal/cal_mod.h cal/cal_tx.h cal/cal_tx.cpp)

function(level_of path out)
  if(path MATCHES "^platform/")
    set(l 0)
  elseif(path MATCHES "^runtime/")
    set(l 1)
  elseif(path MATCHES "^msg/")
    set(l 2)
  elseif(path MATCHES "^cal/")
    if(path IN_LIST vocabulary)
      set(l 3)
    else()
      set(l 5)
    endif()
  elseif(path MATCHES "^(vin|enc|dec|vout)/")
    set(l 4)
  else()
    set(l -1)
  endif()
  set(${out} ${l} PARENT_SCOPE)
endfunction()

# The logger and the core record are used by every level, the threads and
# the channel included; they themselves include nothing above runtime.
set(everywhere cal/cal_log.h cal/cal.h cal/cal_buf.h)

file(GLOB_RECURSE files RELATIVE ${SRC} ${SRC}/runtime/* ${SRC}/msg/* ${SRC}/cal/* ${SRC}/vin/* ${SRC}/enc/*
     ${SRC}/dec/* ${SRC}/vout/*)
set(bad "")
foreach(f ${files})
  if(NOT f MATCHES "\\.(h|cpp)$")
    continue()
  endif()
  level_of(${f} lf)
  file(STRINGS ${SRC}/${f} lines REGEX "^#include \"")
  foreach(line ${lines})
    string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" inc "${line}")
    if(inc IN_LIST everywhere AND NOT f IN_LIST everywhere)
      continue()
    endif()
    level_of(${inc} li)
    if(li GREATER lf)
      list(APPEND bad "${f} includes ${inc}")
    endif()
  endforeach()
endforeach()
if(bad)
  list(JOIN bad "\n" text)
  message(FATAL_ERROR "includes against the layering:\n${text}")
endif()
