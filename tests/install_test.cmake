# Installs the products, and builds a C program with nothing but what was installed, which a board
# runs.
# Wants BUILD_DIR, SOURCE, C_COMPILER, FLAGS and RUN, the command that runs a program on a board.

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
        share/man/man1/bhctl.1 share/man/man3/libbh.3 share/man/man8/bh_servd.8
        share/bash-completion/completions/bhctl)
  if(NOT EXISTS ${prefix}/${product})
    message(FATAL_ERROR "${product} was not installed")
  endif()
endforeach()
# With the compiler's own file offsets and times, and with those of the library.
foreach(widths "" "-D_FILE_OFFSET_BITS=64;-D_TIME_BITS=64")
  must_run(${C_COMPILER} -std=c11 -Wall -Wextra -Wpedantic -Werror ${FLAGS} ${widths}
           -I ${prefix}/include ${SOURCE} ${prefix}/lib/libbh.a -o ${prefix}/c_program)
  must_run(${RUN} ${prefix}/c_program /tmp/settings)
endforeach()
