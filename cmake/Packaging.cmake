# Debian package of the installation (cpack -G DEB in the build tree): the
# libraries, the public headers, the CMake package, the pkg-config file,
# zvmap, the example map and the Python module, in one package.
#
# The package installs under CMAKE_INSTALL_PREFIX, the prefix the build was
# configured with: the fixed-path start-up GridMapServer::init() has the
# example map's installed path compiled in, so the package must put the map
# exactly there. A package for a distribution is built from a tree
# configured with -DCMAKE_INSTALL_PREFIX=/usr.
set(CPACK_PACKAGE_NAME zorvane-localization)
set(CPACK_PACKAGE_VENDOR "zorvane")
set(CPACK_PACKAGE_CONTACT "zorvane developers <maintainers@zorvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Prior map library of a LiDAR localiser: grid maps, look-up tables, zvmap files")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_GENERATOR DEB)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Run-time dependencies of what the package holds: yaml-cpp's shared library
# (Debian names it by its major.minor version), GNU OpenMP, and libpng for
# zvmap's images. libc, libstdc++ and libgcc come with every system that
# has these.
if(yaml-cpp_VERSION MATCHES "^([0-9]+\\.[0-9]+)")
  set(zv_yaml_cpp_package libyaml-cpp${CMAKE_MATCH_1})
else()
  set(zv_yaml_cpp_package libyaml-cpp0.7)
endif()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${zv_yaml_cpp_package}, libgomp1, libpng16-16")
# What building a host against the package needs besides.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libyaml-cpp-dev, pkg-config")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3-numpy")

include(CPack)
