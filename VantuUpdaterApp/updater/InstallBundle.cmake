# Installs the updater bundle at <root>/opt/Vantu Utilities.localized/Vantu Updater5, where <root>
# is the install prefix, or the folder above it when the prefix ends in /usr (file(INSTALL) adds
# any DESTDIR itself).
set(root "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/usr/?$" "" root "${root}")
file(INSTALL "${VANTU_UPDATER_BUNDLE}"
     DESTINATION "${root}/opt/Vantu Utilities.localized/Vantu Updater5" USE_SOURCE_PERMISSIONS)
# An install with --strip (and a package build) strips the program as it would a target's.
if(CMAKE_INSTALL_DO_STRIP AND VANTU_STRIP)
  execute_process(COMMAND "${VANTU_STRIP}"
    "$ENV{DESTDIR}${root}/opt/Vantu Utilities.localized/Vantu Updater5/Vantu Updater.app/Contents/MacOS/Vantu Updater")
endif()
