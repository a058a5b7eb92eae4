# What `cmake --install BUILD --prefix FOLDER --component tools` brings to whoever uses tvusb: the program, its man page
# and its completion for bash, both made by the program itself, the samples and the documents; for live, the rules of
# udev, the unit of systemd and its user (docs/live.md).
include(GNUInstallDirs)

function(tv64usb_made option file)
    add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/${file}
        COMMAND $<TARGET_FILE:tvusb> ${option} > ${CMAKE_BINARY_DIR}/${file} DEPENDS tvusb VERBATIM)
endfunction()
tv64usb_made(--man tvusb.1)
tv64usb_made(--completion tvusb.bash)
add_custom_target(tvusb-documents DEPENDS ${CMAKE_BINARY_DIR}/tvusb.1 ${CMAKE_BINARY_DIR}/tvusb.bash)

install(TARGETS tvusb RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(FILES ${CMAKE_BINARY_DIR}/tvusb.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES ${CMAKE_BINARY_DIR}/tvusb.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tvusb
    COMPONENT tools)
file(GLOB samples CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/samples/*.toml ${CMAKE_SOURCE_DIR}/samples/*.pcap
    ${CMAKE_SOURCE_DIR}/samples/*.hid)
install(FILES ${samples} DESTINATION ${CMAKE_INSTALL_DATADIR}/tvusb/samples COMPONENT tools)
install(FILES tools/live/system/70-tvusb.rules DESTINATION lib/udev/rules.d COMPONENT tools)
install(FILES tools/live/system/tvusb-live@.service DESTINATION lib/systemd/system COMPONENT tools)
install(FILES tools/live/system/tvusb.sysusers DESTINATION lib/sysusers.d RENAME tvusb.conf COMPONENT tools)
install(FILES README.md LICENSE docs/json.md docs/live.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tv64usb COMPONENT tools)
