# cmake -DVARS=<install_vars.cmake> -DMODE=<mode> -P install_check.cmake
#
# One check of the installed tree, chosen by MODE (see CMakeLists.txt here).
# Fails with a message naming the step that went wrong.
cmake_policy(VERSION 3.16)
include(${VARS})
set(prefix ${WORK_DIR}/prefix)
set(consumer_dir ${SOURCE_DIR}/examples/consumer)
string(ASCII 27 esc)

# Runs a command; fails unless it exits with `expected_rc` (0 by default,
# set before the call). Leaves its standard output in step_output.
function(step name)
  if(NOT DEFINED expected_rc)
    set(expected_rc 0)
  endif()
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc STREQUAL expected_rc)
    message(FATAL_ERROR "${name}: exit status ${rc}, expected ${expected_rc}\n"
                        "command: ${ARGN}\n${out}\n${err}")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

function(expect_equal what actual expected)
  if(NOT actual STREQUAL expected)
    message(FATAL_ERROR "${what}:\n  got      '${actual}'\n  expected '${expected}'")
  endif()
endfunction()

function(expect_match what text regex)
  if(NOT text MATCHES "${regex}")
    message(FATAL_ERROR "${what}: no match for '${regex}' in:\n${text}")
  endif()
endfunction()

# `ldd binary` must resolve each of the libraries named after it into
# `libdir`, not into the build tree or the system.
function(expect_resolved_in binary libdir)
  step("ldd ${binary}" ldd ${binary})
  foreach(lib IN LISTS ARGN)
    string(REGEX MATCH "${lib} => [^ \n]*" line "${step_output}")
    expect_equal("${binary}: ${lib} resolved to" "${line}" "${lib} => ${libdir}/${lib}")
  endforeach()
endfunction()

# What an installation under `root` must hold, and nothing more under
# include/: the libraries with their SONAMEs, the public headers, the
# packages for CMake and pkg-config, zvmap and the example map.
function(check_layout root)
  set(lib ${root}/${LIBDIR})
  foreach(name zorvane_localization gpu_aligner)
    foreach(file lib${name}.so lib${name}.so.0 lib${name}.so.${VERSION})
      if(NOT EXISTS ${lib}/${file})
        message(FATAL_ERROR "missing ${lib}/${file}")
      endif()
    endforeach()
    step("readelf lib${name}" readelf -d ${lib}/lib${name}.so.${VERSION})
    expect_match("SONAME of lib${name}" "${step_output}"
                 "Library soname: \\[lib${name}\\.so\\.0\\]")
  endforeach()
  step("readelf libzorvane_localization" readelf -d ${lib}/libzorvane_localization.so.0)
  expect_match("libzorvane_localization's dependency on gpu_aligner" "${step_output}"
               "Shared library: \\[libgpu_aligner\\.so\\.0\\]")
  expect_match("libzorvane_localization's run path" "${step_output}"
               "(RUNPATH|RPATH)[^\n]*\\[\\$ORIGIN\\]")

  foreach(file
      ${BINDIR}/zvmap
      ${DATADIR}/zorvane/maps/map_lossy.gridmap
      ${LIBDIR}/pkgconfig/zorvane-localization.pc
      ${LIBDIR}/cmake/zorvane/zorvaneConfig.cmake
      ${LIBDIR}/cmake/zorvane/zorvaneConfigVersion.cmake
      ${LIBDIR}/cmake/zorvane/zorvaneTargets.cmake)
    if(NOT EXISTS ${root}/${file})
      message(FATAL_ERROR "missing ${root}/${file}")
    endif()
  endforeach()
  file(READ ${root}/${DATADIR}/zorvane/maps/map_lossy.gridmap magic LIMIT 5 HEX)
  expect_equal("magic of the installed map (hex)" "${magic}" "7a766d6170")  # "zvmap"

  file(GLOB_RECURSE installed LIST_DIRECTORIES false
       RELATIVE ${root}/${INCLUDEDIR}/zorvane ${root}/${INCLUDEDIR}/zorvane/*)
  file(GLOB outside LIST_DIRECTORIES true RELATIVE ${root}/${INCLUDEDIR} ${root}/${INCLUDEDIR}/*)
  list(SORT installed)
  set(expected ${EXPECTED_HEADERS})
  list(SORT expected)
  expect_equal("headers under ${INCLUDEDIR}/zorvane" "${installed}" "${expected}")
  expect_equal("entries of ${INCLUDEDIR}" "${outside}" "zorvane")
endfunction()

# Configures, builds and runs examples/consumer against the package under
# `package_prefix`, in `build`.
function(build_cmake_consumer package_prefix build)
  step("consumer configure" ${CMAKE_COMMAND} -S ${consumer_dir} -B ${build}
    -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}"
    -DCMAKE_PREFIX_PATH=${package_prefix}
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF)
  file(STRINGS ${build}/CMakeCache.txt found REGEX "^zorvane_DIR:")
  expect_equal("package found" "${found}"
               "zorvane_DIR:PATH=${package_prefix}/${LIBDIR}/cmake/zorvane")
  step("consumer build" ${CMAKE_COMMAND} --build ${build})
  expect_resolved_in(${build}/zv_consumer ${package_prefix}/${LIBDIR}
                     libzorvane_localization.so.0 libgpu_aligner.so.0)

  # No argument: the example map installed with the package.
  set(map ${package_prefix}/${DATADIR}/zorvane/maps/map_lossy.gridmap)
  step("consumer run" ${build}/zv_consumer)
  expect_equal("consumer output"
    "${step_output}"
    "${esc}[32m[MapServer]: Load from file: ${map}${esc}[0m\nzv_consumer: GridMapServer started\n")
endfunction()

if(MODE STREQUAL "prefix")
  file(REMOVE_RECURSE ${WORK_DIR})
  step("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
  check_layout(${prefix})
  expect_resolved_in(${prefix}/${LIBDIR}/libzorvane_localization.so.0 ${prefix}/${LIBDIR}
                     libgpu_aligner.so.0)

elseif(MODE STREQUAL "headers")
  # Each installed header alone, twice (its include guard), in a translation
  # unit that sees the installed tree and the system's headers only.
  set(tu_dir ${WORK_DIR}/headers)
  file(REMOVE_RECURSE ${tu_dir})
  file(GLOB_RECURSE headers RELATIVE ${prefix}/${INCLUDEDIR}/zorvane
       ${prefix}/${INCLUDEDIR}/zorvane/*.h)
  if(NOT headers)
    message(FATAL_ERROR "no headers under ${prefix}/${INCLUDEDIR}/zorvane")
  endif()
  foreach(header IN LISTS headers)
    string(MAKE_C_IDENTIFIER ${header} tu)
    file(WRITE ${tu_dir}/${tu}.cpp "#include \"${header}\"\n#include \"${header}\"\n")
    step("${header} on its own" ${CXX} -std=c++17 -fsyntax-only -Wall -Wextra -Werror
         -I${prefix}/${INCLUDEDIR}/zorvane ${tu_dir}/${tu}.cpp)
  endforeach()
  list(LENGTH headers count)
  message(STATUS "${count} installed headers compile on their own")

elseif(MODE STREQUAL "consumer_cmake")
  set(build ${WORK_DIR}/consumer_cmake)
  file(REMOVE_RECURSE ${build})
  build_cmake_consumer(${prefix} ${build})
  # A failed start-up reaches the host as the coded exception.
  set(expected_rc 1)
  step("consumer run on a missing map" ${build}/zv_consumer ${WORK_DIR}/no_such_map.gridmap)
  expect_match("consumer output on a missing map" "${step_output}"
               "Fail loading map into MapServer.*zv_consumer: start-up failed, code 0x11804\n$")

elseif(MODE STREQUAL "consumer_pkgconfig")
  set(build ${WORK_DIR}/consumer_pkgconfig)
  file(REMOVE_RECURSE ${build})
  file(MAKE_DIRECTORY ${build})
  set(pkg_config ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/${LIBDIR}/pkgconfig
      pkg-config)
  step("pkg-config --modversion" ${pkg_config} --modversion zorvane-localization)
  expect_equal("pkg-config version" "${step_output}" "${VERSION}\n")
  step("pkg-config --variable=libdir" ${pkg_config} --variable=libdir zorvane-localization)
  string(STRIP "${step_output}" libdir)
  step("pkg-config --variable=mapdir" ${pkg_config} --variable=mapdir zorvane-localization)
  string(STRIP "${step_output}" mapdir)
  step("pkg-config --cflags --libs" ${pkg_config} --cflags --libs zorvane-localization)
  separate_arguments(pc_flags UNIX_COMMAND "${step_output}")
  expect_match("pkg-config flags" "${step_output}"
               "-I[^ ]*/${INCLUDEDIR}/zorvane .*-lzorvane_localization -lgpu_aligner .*-lyaml-cpp")
  get_filename_component(real_libdir ${libdir} REALPATH)
  expect_equal("pkg-config libdir" "${real_libdir}" "${prefix}/${LIBDIR}")

  separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
  step("consumer build" ${CXX} -std=c++17 ${cxx_flags} ${consumer_dir}/main.cpp ${pc_flags}
       -Wl,-rpath,${libdir} -o ${build}/zv_consumer)
  expect_resolved_in(${build}/zv_consumer ${libdir}
                     libzorvane_localization.so.0 libgpu_aligner.so.0)
  step("consumer run" ${build}/zv_consumer ${mapdir}/map_lossy.gridmap)
  expect_equal("consumer output"
    "${step_output}"
    "${esc}[32m[MapServer]: Load from file: ${mapdir}/map_lossy.gridmap${esc}[0m\nzv_consumer: GridMapServer started\n")

elseif(MODE STREQUAL "zvmap")
  set(zvmap ${prefix}/${BINDIR}/zvmap)
  expect_resolved_in(${zvmap} ${prefix}/${BINDIR}/../${LIBDIR}
                     libzorvane_localization.so.0 libgpu_aligner.so.0)
  step("zvmap --version" ${zvmap} --version)
  expect_equal("zvmap --version" "${step_output}" "zvmap ${VERSION}\n")
  # The installed tool on the installed map says what the build's tool says
  # on the build's map, but for the file's name.
  set(installed_map ${prefix}/${DATADIR}/zorvane/maps/map_lossy.gridmap)
  set(build_map ${BUILD_DIR}/${DATADIR}/zorvane/maps/map_lossy.gridmap)
  step("zvmap info (build tree)" ${BUILD_DIR}/${BINDIR}/zvmap info ${build_map})
  string(REPLACE "${build_map}" "${installed_map}" expected "${step_output}")
  step("zvmap info" ${zvmap} info ${installed_map})
  expect_match("zvmap info on the installed map" "${step_output}"
               "\ngeometry +[0-9]+ cols x [0-9]+ rows.*\ncells +[1-9][0-9]* ")
  expect_equal("zvmap info on the installed map" "${step_output}" "${expected}")

elseif(MODE STREQUAL "deb")
  set(deb_dir ${WORK_DIR}/deb)
  set(root ${deb_dir}/root)
  file(REMOVE_RECURSE ${deb_dir})
  step("cpack" ${CPACK} -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${deb_dir})
  file(GLOB debs ${deb_dir}/*.deb)
  list(LENGTH debs count)
  expect_equal("packages made" "${count}" "1")

  step("dpkg-deb --field" ${DPKG_DEB} --field ${debs} Package Version Depends)
  expect_match("package fields" "${step_output}"
    "^Package: zorvane-localization\nVersion: ${VERSION}\nDepends: [^\n]*libyaml-cpp[0-9.]+, libgomp1")
  step("dpkg-deb --extract" ${DPKG_DEB} --extract ${debs} ${root})
  # The package installs where the build's fixed-path start-up looks.
  set(package_prefix ${root}${INSTALL_PREFIX})
  check_layout(${package_prefix})
  build_cmake_consumer(${package_prefix} ${deb_dir}/consumer)

else()
  message(FATAL_ERROR "unknown MODE '${MODE}'")
endif()
