# Runs as a CTest script: cmake -P install_test.cmake with BUILD_DIR, CONSUMER_DIR, WORK_DIR,
# C_COMPILER, C_FLAGS and LINK_FLAGS.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# find_package(tevix)
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer -G Ninja
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_COMPILER=${C_COMPILER}
    "-DCMAKE_C_FLAGS=${C_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINK_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/lib ${WORK_DIR}/consumer/consumer)
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "consumer printed: ${last_output}")
endif()

# pkg-config
file(GLOB pcdir LIST_DIRECTORIES true ${prefix}/lib*/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "${pcdir}")
run(pkg-config --cflags --libs tevix)
string(STRIP "${last_output}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(c_flags UNIX_COMMAND "${C_FLAGS} ${LINK_FLAGS}")
run(${C_COMPILER} ${c_flags} -o ${WORK_DIR}/consumer_pc ${WORK_DIR}/consumer/all_headers.c
    ${CONSUMER_DIR}/main.c -I${WORK_DIR}/consumer ${pc_flags})
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/lib ${WORK_DIR}/consumer_pc)
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "pkg-config consumer printed: ${last_output}")
endif()
