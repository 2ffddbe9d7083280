# Installs the products, and builds a C program with nothing but what was installed, found by
# pkg-config and by CMake. A board runs it.
# Wants BUILD_DIR, TESTS, C_COMPILER, FLAGS and RUN, the command that runs a program on a board.

set(prefix ${BUILD_DIR}/install-test)
file(REMOVE_RECURSE ${prefix})

function(must_run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGV}: ${result}\n${output}")
  endif()
endfunction()

must_run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(product sbin/bh_servd bin/bhctl etc/init.d/bh_servd lib/systemd/system/bh_servd@.service
        share/man/man1/bhctl.1 share/man/man3/libbh.3 share/man/man3/libbh_lock.3
        share/man/man8/bh_servd.8
        share/bash-completion/completions/bhctl
        share/bhctl/wireshark/acp.lua lib/libacp_client.so include/bh/client/acp_client.h)
  if(NOT EXISTS ${prefix}/${product})
    message(FATAL_ERROR "${product} was not installed")
  endif()
endforeach()
set(ENV{PKG_CONFIG_LIBDIR} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs libbh OUTPUT_VARIABLE library
                COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(library UNIX_COMMAND "${library}")
# With the compiler's own file offsets and times, and with those of the library.
foreach(widths "" "-D_FILE_OFFSET_BITS=64;-D_TIME_BITS=64")
  must_run(${C_COMPILER} -std=c11 -Wall -Wextra -Wpedantic -Werror ${FLAGS} ${widths}
           ${TESTS}/c_program.c ${library} -o ${prefix}/c_program)
  must_run(${RUN} ${prefix}/c_program /tmp/settings)
endforeach()

list(JOIN FLAGS " " flags)
must_run(${CMAKE_COMMAND} -S ${TESTS}/find_bh -B ${prefix}/find_bh -D CMAKE_PREFIX_PATH=${prefix}
         -D CMAKE_C_COMPILER=${C_COMPILER} -D CMAKE_C_FLAGS=${flags})
must_run(${CMAKE_COMMAND} --build ${prefix}/find_bh)
must_run(${RUN} ${prefix}/find_bh/c_program /tmp/settings)
