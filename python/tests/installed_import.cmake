# cmake -DBUILD_DIR=... -DWORK_DIR=... -DPYTHON=... -DPACKAGE_DIR=... -DLIB_DIR=...
#       -P installed_import.cmake
# Installs the build into a scratch prefix and imports the installed package
# from there with nothing of the build tree on the paths: the package, its
# run path and the map library beside it. Fails naming the step.
cmake_policy(SET CMP0007 NEW)
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix}
  RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed (${rc}):\n${err}")
endif()

# Prints where the package and the map library it loaded come from.
set(script [=[
import sys, zorvane, zorvane._zorvane as ext
libs = [l.split()[-1] for l in open("/proc/self/maps") if "libzorvane_localization" in l]
assert repr(zorvane.Map()).startswith("<zorvane.Map 0 x 0 positions")
print(zorvane.__file__, ext.__file__, sorted(set(libs))[0], sep="\n")
]=])
# -I: no user site, no PYTHONPATH; the prefix is the one path added.
execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${PYTHON} -I -c "import sys; sys.path.insert(0, '${prefix}/${PACKAGE_DIR}'); exec(sys.argv[1])" "${script}"
  WORKING_DIRECTORY ${WORK_DIR}
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "import of the installed package failed (${rc}):\n${out}\n${err}")
endif()
string(REPLACE "\n" ";" lines "${out}")
list(GET lines 0 init)
list(GET lines 1 extension)
list(GET lines 2 library)
foreach(path init extension library)
  string(FIND "${${path}}" "${prefix}/" at)
  if(NOT at EQUAL 0)
    message(FATAL_ERROR "${path} comes from ${${path}}, not from ${prefix}")
  endif()
endforeach()
string(FIND "${library}" "${prefix}/${LIB_DIR}/" at)
if(NOT at EQUAL 0)
  message(FATAL_ERROR "map library loaded from ${library}, not from ${prefix}/${LIB_DIR}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
message(STATUS "installed package imports from ${prefix}/${PACKAGE_DIR}")
