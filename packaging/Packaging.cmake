# Debian packages, built by `make package` (cpack -G DEB) from the installed components:
#   libvantuupdater5     the library, named after its soname, with a shlibs file
#   libvantuupdater-dev  the .so link, the header, the pkg-config file and the CMake package
#   vantu-updater        the reference updater in /opt and the tmpfiles snippet that makes
#                        /var/lib/Vantu/Updater5; its scripts create the group and apply it
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vantuupdater)
set(CPACK_PACKAGE_VERSION ${VANTU_LIBRARY_VERSION})
set(CPACK_PACKAGE_VENDOR "Vantu")
set(CPACK_PACKAGE_CONTACT "Vantu Updater maintainers <updater@vantu.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
# Staging through DESTDIR keeps the install scripts from mistaking the staging folder for the
# system (the tmpfiles snippet is applied only outside a DESTDIR).
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL VantuUpdater VantuUpdaterDev VantuUpdaterApp)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://vantu.example/updater")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_VANTUUPDATER_PACKAGE_NAME libvantuupdater${VANTU_LIBRARY_SOVERSION})
set(CPACK_DEBIAN_VANTUUPDATER_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_VANTUUPDATER_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/libvantuupdater5/triggers)
set(CPACK_COMPONENT_VANTUUPDATER_DESCRIPTION
    "Vantu Updater client library\nLets desktop applications register with the Vantu Updater,\nask for updates and request missing components.")

set(CPACK_DEBIAN_VANTUUPDATERDEV_PACKAGE_NAME libvantuupdater-dev)
set(CPACK_DEBIAN_VANTUUPDATERDEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_VANTUUPDATERDEV_PACKAGE_DEPENDS
    "libvantuupdater${VANTU_LIBRARY_SOVERSION} (= ${VANTU_LIBRARY_VERSION})")
set(CPACK_COMPONENT_VANTUUPDATERDEV_DESCRIPTION
    "Vantu Updater client library (development files)\nThe header, pkg-config file and CMake package to build hosts against\nthe Vantu Updater client library.")

set(CPACK_DEBIAN_VANTUUPDATERAPP_PACKAGE_NAME vantu-updater)
set(CPACK_DEBIAN_VANTUUPDATERAPP_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_VANTUUPDATERAPP_PACKAGE_DEPENDS "adduser, passwd")
set(CPACK_DEBIAN_VANTUUPDATERAPP_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/vantu-updater/postinst ${CMAKE_CURRENT_LIST_DIR}/vantu-updater/postrm)
set(CPACK_DEBIAN_VANTUUPDATERAPP_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_VANTUUPDATERAPP_DESCRIPTION
    "Vantu Updater, reference updater application\nThe updater the client library starts, and the machine-wide folder in\nwhich members of the update group register their applications.")

# Each package's copyright file and changelog, as Debian wants them in usr/share/doc/PACKAGE; the
# updater's lintian overrides explain why it lives in /opt.
string(TIMESTAMP VANTU_CHANGELOG_DATE "%a, %d %b %Y 00:00:00 +0000" UTC)
foreach(component VantuUpdater VantuUpdaterDev VantuUpdaterApp)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(doc ${CMAKE_BINARY_DIR}/packaging/${package})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in ${doc}/changelog @ONLY)
  execute_process(COMMAND gzip -9nf ${doc}/changelog)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright ${doc}/changelog.gz
          DESTINATION share/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
install(FILES ${CMAKE_CURRENT_LIST_DIR}/vantu-updater/lintian-overrides
        DESTINATION share/lintian/overrides RENAME vantu-updater
        COMPONENT VantuUpdaterApp EXCLUDE_FROM_ALL)

include(CPack)
