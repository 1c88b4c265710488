# Headers, both libraries, the demo, a CMake package (quibo::quibo_shared, quibo::quibo_static) and a pkg-config file.

include(CMakePackageConfigHelpers)

install(TARGETS quibo_shared quibo_static EXPORT quibo-targets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS quibo_demo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES include/quibo/quibo.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quibo)
# The records, for callers that hold one themselves.
install(FILES api/WakeupApi.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quibo/api)
install(FILES wakeup/ChineseConv.h wakeup/QuibWakeupApi.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quibo/wakeup)
install(FILES doa/ring_doa.h doa/customs_doa_api.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quibo/doa)
install(FILES dsp/complex.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quibo/dsp)
install(FILES aec/Laec.h aec/aecpostapi.h aec/aec_denoise.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quibo/aec)
install(FILES denoise/denoise.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quibo/denoise)
install(FILES limiter/zq_MPO.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quibo/limiter)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quibo)
install(EXPORT quibo-targets NAMESPACE quibo:: DESTINATION ${package_dir})
configure_package_config_file(cmake/quibo-config.cmake.in ${PROJECT_BINARY_DIR}/quibo-config.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quibo-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/quibo-config.cmake ${PROJECT_BINARY_DIR}/quibo-config-version.cmake
  DESTINATION ${package_dir})

# Relative to itself, so that `cmake --install --prefix` and moved installations work.
file(RELATIVE_PATH quibo_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/quibo.pc.in ${PROJECT_BINARY_DIR}/quibo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quibo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
