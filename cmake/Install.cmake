include(CMakePackageConfigHelpers)

if(BUILD_SHARED_LIBS)
  set(_qv_lib qvcore_shared)
else()
  set(_qv_lib qvcore_static)
endif()
set_target_properties(${_qv_lib} PROPERTIES EXPORT_NAME qvcore)
target_link_libraries(${_qv_lib} INTERFACE
  $<INSTALL_INTERFACE:nlohmann_json::nlohmann_json>
  $<INSTALL_INTERFACE:Threads::Threads>)

install(TARGETS ${_qv_lib} EXPORT QVCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/qvcore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT QVCoreTargets NAMESPACE QVCore:: FILE QVCoreTargets.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QVCore)

configure_package_config_file(cmake/QVCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QVCoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QVCore)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QVCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QVCoreConfig.cmake
              ${PROJECT_BINARY_DIR}/QVCoreConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QVCore)

configure_file(cmake/qvcore.pc.in ${PROJECT_BINARY_DIR}/qvcore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvcore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
