# Installs what another project needs: the library, the headers (by their rooms), a CMake package
# and a pkg-config file. All are independent of the prefix's location.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/QuarnBastil)
install(TARGETS quarnbastil EXPORT QuarnBastilTargets DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT QuarnBastilTargets NAMESPACE QuarnBastil:: DESTINATION ${package_dir})
write_basic_package_version_file("${PROJECT_BINARY_DIR}/QuarnBastilConfigVersion.cmake"
                                 COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_LIST_DIR}/QuarnBastilConfig.cmake"
              "${PROJECT_BINARY_DIR}/QuarnBastilConfigVersion.cmake" DESTINATION ${package_dir})

set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH BASTIL_PREFIX_FROM_PC "/${pkgconfig_dir}" "/")
configure_file("${CMAKE_CURRENT_LIST_DIR}/quarnbastil.pc.in"
               "${PROJECT_BINARY_DIR}/quarnbastil.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/quarnbastil.pc" DESTINATION ${pkgconfig_dir})
