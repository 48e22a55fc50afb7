# Debian packages: `cpack --preset release` puts them into build/release/packages.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGE_CONTACT "XCP-Lumo developers <developers@xcplumo.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "measure and calibrate ECUs over XCP by A2L name")
set(CPACK_PACKAGE_DESCRIPTION "xcplumo-cli reads and writes values of an ECU over XCP on CAN, UDP or a
serial line, by the names of an A2L file. It runs DAQ measurements, records
them and exports recordings. xcplumo-sim is a simulated ECU for trying it.")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

# SOURCE_DATE_EPOCH fixes the date.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/changelog.in packaging/changelog @ONLY)
add_custom_command(OUTPUT packaging/changelog.gz DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog VERBATIM
                   COMMAND gzip -9nc ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog > packaging/changelog.gz)
add_custom_target(package-changelog ALL DEPENDS packaging/changelog.gz)
install(FILES packaging/copyright ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})
