# Installs the library as a new user would, into a scratch prefix whose library directory
# has two levels (as Debian's lib/x86_64-linux-gnu), then builds and runs a small program
# against it, found once by find_package(korvel) and once by pkg-config, and runs the
# installed korvel program from there.
#   cmake -DSOURCE=<project> -DWORK=<scratch> -DGENERATOR=<generator> -DCC=<c compiler>
#         -DCXX=<c++ compiler> -P install_test.cmake
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}")
  endif()
  string(STRIP "${out}" out)
  set(out "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${WORK}/prefix)
set(libdir lib/x86_64-linux-gnu)
set(consumer ${CMAKE_CURRENT_LIST_DIR}/consumer)
file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build -G ${GENERATOR} -DCMAKE_C_COMPILER=${CC}
    -DCMAKE_CXX_COMPILER=${CXX} -DKORVEL_TESTS=OFF -DCMAKE_INSTALL_LIBDIR=${libdir})
run(${CMAKE_COMMAND} --build ${WORK}/build --parallel 2)
run(${CMAKE_COMMAND} --install ${WORK}/build --prefix ${prefix})

# The installed program starts without help from the environment.
run(${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${prefix}/bin/korvel --version)
message(STATUS "installed korvel: ${out}")

# find_package(korvel)
run(${CMAKE_COMMAND} -S ${consumer} -B ${WORK}/consumer -G ${GENERATOR} -DCMAKE_C_COMPILER=${CC}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK}/consumer)
run(${WORK}/consumer/consumer)
message(STATUS "find_package consumer: ${out}")

# pkg-config, with only the installed file to find; its directories must be the prefix's.
find_program(PKG_CONFIG NAMES pkg-config pkgconf REQUIRED)
set(pc ${CMAKE_COMMAND} -E env PKG_CONFIG_LIBDIR=${prefix}/${libdir}/pkgconfig ${PKG_CONFIG})
foreach(dir includedir libdir)
  run(${pc} --variable=${dir} korvel)
  file(REAL_PATH "${out}" found)
  set(${dir}_found ${found})
endforeach()
if(NOT includedir_found STREQUAL "${prefix}/include" OR NOT libdir_found STREQUAL "${prefix}/${libdir}")
  message(FATAL_ERROR "korvel.pc points to ${includedir_found} and ${libdir_found}")
endif()
run(${pc} --cflags --libs korvel)
separate_arguments(flags UNIX_COMMAND "${out}")
run(${CC} ${consumer}/consumer.c ${flags} -Wl,-rpath,${libdir_found} -o ${WORK}/consumer_pc)
run(${WORK}/consumer_pc)
message(STATUS "pkg-config consumer: ${out}")

# The Python package, installed with its own copy of the library, imports with nothing but
# its directory on the path and uses that copy (skipped without numpy).
find_program(PYTHON3 NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
if(PYTHON3)
  execute_process(COMMAND ${PYTHON3} -c "import numpy" RESULT_VARIABLE no_numpy OUTPUT_QUIET ERROR_QUIET)
  if(no_numpy EQUAL 0)
    run(${CMAKE_COMMAND} -E env --unset=KORVEL_LIBRARY PYTHONPATH=${prefix}/${libdir}/python
        ${PYTHON3} -c "print(__import__('korvel').library_path())")
    string(FIND "${out}" "${prefix}/${libdir}/python/korvel/libkorvel.so" at)
    if(NOT at EQUAL 0)
      message(FATAL_ERROR "the installed Python package uses ${out}")
    endif()
    message(STATUS "python package: ${out}")
  endif()
endif()
