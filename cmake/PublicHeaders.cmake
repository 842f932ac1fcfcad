# The headers a host or a map producer includes: the only headers installed
# (under include/zorvane/, with these relative paths). Every other header in
# common/ and localization/ is internal to the library and stays in the
# source tree. An installed header may include only installed headers;
# tests/install checks that each one compiles on its own against the
# installed tree.
#
#   ZV_PUBLIC_HEADERS      the map library's interface, gpu_aligner.h included
#                          (a host that links the real GPU library gets the
#                          same header from it)
#   ZV_STAND_IN_HEADERS    the inspection interface of our gpu_aligner
#                          stand-in, in a folder of its own, so that nothing
#                          a host includes changes when the stand-in is
#                          swapped for the real library
set(ZV_PUBLIC_HEADERS
  common/common_base.h
  common/console.h
  localization/grid_matrix.h
  localization/map_allocator.h
  localization/grid_map_base.h
  localization/grid_map_lossy.h
  localization/map_load_status.h
  localization/grid_map_server.h
  localization/matrix_config.h
  localization/runtime_error.h
  localization/look_up_table.h
  localization/lossy_format.h
  localization/little_endian.h
  gpu_aligner/gpu_aligner.h)
# Crash-safe saving, public for map producers; part of the list once its
# header is in the tree.
if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/../localization/durable_save.h)
  list(APPEND ZV_PUBLIC_HEADERS localization/durable_save.h)
endif()

set(ZV_STAND_IN_HEADERS
  gpu_aligner_stand_in/stand_in_record.h)

# Installs each header of `headers` (paths relative to the source root) under
# include/zorvane/ with its relative path.
function(zv_install_headers)
  foreach(header IN LISTS ARGN)
    get_filename_component(dir ${header} DIRECTORY)
    install(FILES ${PROJECT_SOURCE_DIR}/${header}
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zorvane/${dir})
  endforeach()
endfunction()
