# Where the program goes when installed, and the .deb made of it: the two
# programs in bin, the icon, the desktop entry and the AppStream metainfo in
# their freedesktop places.
include(GNUInstallDirs)

set(PELICANE_APP_ID com.lyrabox.pelicane)
if(PELICANE_GUI)
  install(TARGETS pelicane RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(TARGETS pelicane-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/${PELICANE_APP_ID}.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/${PELICANE_APP_ID}.png
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/256x256/apps)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/${PELICANE_APP_ID}.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/${PELICANE_APP_ID}.metainfo.xml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pelicane)
set(CPACK_PACKAGE_VENDOR Lyrabox)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Uploads a music collection to a Lyrabox library and downloads it back")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Pelicane developers <support@lyrabox.test>")
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
# The libraries the programs link, as Debian names them.
find_program(PELICANE_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(PELICANE_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
# QtKeychain opens libsecret only when it runs; without it the password goes
# to the settings file.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libsecret-1-0")
include(CPack)
