# cmake -DBUILD_DIR=... -DWORK_DIR=... -DCONSUMER_DIR=... -DGENERATOR=...
#       -DCXX=... [-DCXX_FLAGS=...] -P install_smoke.cmake
# Fails with a message naming the step that went wrong.
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

function(step name)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${name} failed (${rc}):\n${out}\n${err}")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

step("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
step("consumer configure" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build
  -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release
  "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}"
  -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
  -DZV_EXPECTED_PREFIX=${prefix})
step("consumer build" ${CMAKE_COMMAND} --build ${WORK_DIR}/build)

set(map ${prefix}/share/zorvane/maps/map_lossy.gridmap)
step("consumer run" ${WORK_DIR}/build/zv_consumer ${map})
string(ASCII 27 esc)
set(expected "${esc}[32m[MapServer]: Load from file: ${map}${esc}[0m\nzv_consumer: GridMapServer started\n")
if(NOT step_output STREQUAL expected)
  message(FATAL_ERROR "consumer printed:\n${step_output}\nexpected:\n${expected}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
message(STATUS "installed package builds and starts the server")
