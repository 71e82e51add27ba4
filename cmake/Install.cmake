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

# A static library hands its own dependencies on to whoever links it; the
# package's config file finds them again on the installing machine.
if(NOT BUILD_SHARED_LIBS)
  foreach(dep ZLIB::ZLIB CURL::libcurl OpenSSL::Crypto PkgConfig::PLIST PkgConfig::UUID
              PkgConfig::ICU PkgConfig::AVAHI)
    target_link_libraries(${_qv_lib} INTERFACE $<INSTALL_INTERFACE:$<LINK_ONLY:${dep}>>)
  endforeach()
endif()

install(TARGETS ${_qv_lib} EXPORT QVCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/qvcore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The core's default settings, found from the library's folder
# (<libdir>/../share/qvcore), so a program built against the package enables
# the core without files of its own.
install(DIRECTORY resources/QVCoreSettings.bundle DESTINATION ${CMAKE_INSTALL_DATADIR}/qvcore)
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

# The pkg-config file finds its prefix from its own folder, so the package
# may be installed anywhere (cmake --install --prefix).
file(RELATIVE_PATH QVCORE_PC_PREFIX "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
configure_file(cmake/qvcore.pc.in ${PROJECT_BINARY_DIR}/qvcore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvcore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

foreach(tool qvcore-shell qvcore-logtool qvcore-collector)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
