# What `cmake --install BUILD --prefix FOLDER --component client` brings to whoever writes applications: headers,
# libraries, samples, a CMake package (find_package(tvusb), tvusb::client) and pkg-config files (tvusb-client). Outside
# Windows also the stand, which gives an application a driver with an emulated keyboard (tvusb::stand, tvusb-stand).
# Nothing of it names the folder, so it may be moved.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set(TVUSB_INCLUDE ${CMAKE_INSTALL_INCLUDEDIR}/tvusb)
set(TVUSB_PACKAGE ${CMAKE_INSTALL_LIBDIR}/cmake/tvusb)

# tv64usb_install(TARGET...): libtvusb-TARGET.a each, tvusb::TARGET for those that find the package.
function(tv64usb_install)
    foreach(target ${ARGN})
        set_target_properties(${target} PROPERTIES OUTPUT_NAME tvusb-${target})
        target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${TVUSB_INCLUDE}>)
    endforeach()
    install(TARGETS ${ARGN} EXPORT tvusb ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT client)
endfunction()

# tv64usb_pkgconfig(NAME DESCRIPTION LIBRARY...): tvusb-NAME.pc, its libraries in the order of linking.
function(tv64usb_pkgconfig name description)
    file(RELATIVE_PATH TVUSB_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
    string(REGEX REPLACE "/$" "" TVUSB_UP ${TVUSB_UP})
    set(TVUSB_NAME tvusb-${name})
    set(TVUSB_DESCRIPTION ${description})
    list(TRANSFORM ARGN PREPEND "-l" OUTPUT_VARIABLE libraries)
    list(JOIN libraries " " TVUSB_LIBRARIES)
    configure_file(${CMAKE_SOURCE_DIR}/client/tvusb.pc.in ${CMAKE_BINARY_DIR}/tvusb-${name}.pc @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/tvusb-${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT client)
endfunction()

file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/client/*.h)
list(REMOVE_ITEM headers ${CMAKE_SOURCE_DIR}/client/find.h ${CMAKE_SOURCE_DIR}/client/requesttexts.h
    ${CMAKE_SOURCE_DIR}/client/windows_errors.h ${CMAKE_SOURCE_DIR}/client/frames.h)
tv64usb_install(client)
if(WIN32)
    list(REMOVE_ITEM headers ${CMAKE_SOURCE_DIR}/client/host_transport.h ${CMAKE_SOURCE_DIR}/client/socket_transport.h)
    tv64usb_pkgconfig(client "Tv64USB for applications" tvusb-client setupapi)
else()
    tv64usb_install(stand emu sys host)
    tv64usb_pkgconfig(client "Tv64USB for applications" tvusb-client tvusb-host pthread)
    tv64usb_pkgconfig(stand "Tv64USB for applications, with an emulated keyboard" tvusb-stand tvusb-emu tvusb-client
        tvusb-sys tvusb-host pthread)
endif()
install(FILES ${headers} DESTINATION ${TVUSB_INCLUDE}/client COMPONENT client)
install(FILES LICENSE docs/requests.md samples/hotkey_listener.cpp samples/eeprom_backup.cpp
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tvusb COMPONENT client)
install(FILES ${CMAKE_SOURCE_DIR}/sys/control/requests.h DESTINATION ${TVUSB_INCLUDE}/sys/control COMPONENT client)

configure_package_config_file(${CMAKE_SOURCE_DIR}/client/tvusb-config.cmake.in ${CMAKE_BINARY_DIR}/tvusb-config.cmake
    INSTALL_DESTINATION ${TVUSB_PACKAGE} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tvusb-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/tvusb-config.cmake ${CMAKE_BINARY_DIR}/tvusb-config-version.cmake
    DESTINATION ${TVUSB_PACKAGE} COMPONENT client)
install(EXPORT tvusb NAMESPACE tvusb:: FILE tvusb-targets.cmake DESTINATION ${TVUSB_PACKAGE} COMPONENT client)
