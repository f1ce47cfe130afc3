# Installation: the plug-in, the platform libraries it runs on, ipapp-check,
# the element's modules, the public headers and the examples, plus a CMake
# package for integrators:
#   find_package(ip_app_validation)
#   target_link_libraries(my_host PRIVATE ipapp::host ipapp::check_engine)
# Installed binaries find their libraries through $ORIGIN-relative RPATHs, so
# an install tree can be moved as a whole.
include(CMakePackageConfigHelpers)

set(IPAPP_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/ip_app_validation")
set(IPAPP_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/ip_app_validation")
set(IPAPP_INSTALL_YANGDIR "${CMAKE_INSTALL_DATADIR}/ip_app_validation/yang")

# Libraries as integrators link them: ipapp::<export name>. The plug-in is not
# among them: hosts load it at run time (IP_APP_VALIDATION_PLUGIN).
set(_ipapp_libraries addrkit confd kxconfd ipapp_host ipapp_check_engine)
set(_ipapp_export_names addrkit confd kxconfd host check_engine)

# Include directories given as plain build-tree paths are valid only in the
# build tree; keep them for it and point installed users at the headers'
# install place instead.
function(_ipapp_installable_includes target)
  get_target_property(dirs ${target} INTERFACE_INCLUDE_DIRECTORIES)
  set(fixed)
  if(dirs)
    foreach(dir IN LISTS dirs)
      if(dir MATCHES "^\\$<")
        list(APPEND fixed "${dir}")
      else()
        list(APPEND fixed "$<BUILD_INTERFACE:${dir}>")
      endif()
    endforeach()
  endif()
  list(APPEND fixed "$<INSTALL_INTERFACE:${IPAPP_INSTALL_INCLUDEDIR}>")
  list(REMOVE_DUPLICATES fixed)
  set_property(TARGET ${target} PROPERTY INTERFACE_INCLUDE_DIRECTORIES "${fixed}")
endfunction()

set(_ipapp_installed)
foreach(target export_name IN ZIP_LISTS _ipapp_libraries _ipapp_export_names)
  if(TARGET ${target})
    _ipapp_installable_includes(${target})
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${export_name} INSTALL_RPATH "$ORIGIN")
    list(APPEND _ipapp_installed ${target})
  endif()
endforeach()
if(TARGET ip_app_validation)
  set_target_properties(ip_app_validation PROPERTIES INSTALL_RPATH "$ORIGIN")
  install(TARGETS ip_app_validation LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
if(TARGET ipapp-check)
  file(RELATIVE_PATH _ipapp_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_target_properties(ipapp-check PROPERTIES INSTALL_RPATH "$ORIGIN/${_ipapp_bin_to_lib}")
  list(APPEND _ipapp_installed ipapp-check)
endif()

if(_ipapp_installed)
  install(TARGETS ${_ipapp_installed}
          EXPORT ip_app_validationTargets
          RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(EXPORT ip_app_validationTargets
          NAMESPACE ipapp::
          DESTINATION ${IPAPP_INSTALL_CMAKEDIR})
endif()

# Public headers: the plug-in's exported interface, the data model's tag
# numbers, the platform APIs, the address types and the commit engine.
install(FILES include/ip_app_validation.h yang/ipapp_ns.h
        DESTINATION ${IPAPP_INSTALL_INCLUDEDIR})
foreach(dir platform/confd/include platform/kxconfd/include platform/host/include
            addrkit/include tools/engine/include)
  if(EXISTS "${PROJECT_SOURCE_DIR}/${dir}")
    install(DIRECTORY ${dir}/ DESTINATION ${IPAPP_INSTALL_INCLUDEDIR}
            FILES_MATCHING PATTERN "*.h")
  endif()
endforeach()

install(DIRECTORY yang/ DESTINATION ${IPAPP_INSTALL_YANGDIR} FILES_MATCHING PATTERN "*.yang")
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

configure_package_config_file(
  cmake/ip_app_validationConfig.cmake.in
  "${PROJECT_BINARY_DIR}/ip_app_validationConfig.cmake"
  INSTALL_DESTINATION ${IPAPP_INSTALL_CMAKEDIR}
  PATH_VARS IPAPP_INSTALL_YANGDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/ip_app_validationConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/ip_app_validationConfig.cmake"
              "${PROJECT_BINARY_DIR}/ip_app_validationConfigVersion.cmake"
        DESTINATION ${IPAPP_INSTALL_CMAKEDIR})
