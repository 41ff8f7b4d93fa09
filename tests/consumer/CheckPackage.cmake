# Installs the build tree BUILD into a fresh prefix under WORK, then builds the consumer project
# SOURCE against it twice (LIBDIR: the library folder under the prefix, CXX: the compiler): through find_package(InterfaceRouteInfo CONFIG), and by hand with the
# flags of the installed pkg-config file; both programs must run and exit 0.
file(REMOVE_RECURSE ${WORK})
set(prefix ${WORK}/prefix)
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}")
  endif()
endfunction()
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/consumer -G Ninja -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${CXX})
run(${CMAKE_COMMAND} --build ${WORK}/consumer)
run(${WORK}/consumer/consumer)
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs interfacerouteinfo
                RESULT_VARIABLE rc OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config knows no interfacerouteinfo under ${prefix}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} ${SOURCE}/main.cpp ${flags} -o ${WORK}/consumer-pc)
run(${WORK}/consumer-pc)
