# Installs the updater bundle at <root>/opt/Vantu Utilities.localized/Vantu Updater5, where <root>
# is the install prefix, or the folder above it when the prefix ends in /usr.
set(root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/usr/?$" "" root "${root}")
file(INSTALL "${VANTU_UPDATER_BUNDLE}"
     DESTINATION "${root}/opt/Vantu Utilities.localized/Vantu Updater5" USE_SOURCE_PERMISSIONS)
