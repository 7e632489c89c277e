# Creates the machine-wide data folder as the installed tmpfiles snippet says, when root installs
# into the running system. Without systemd-tmpfiles it does the same with mkdir, chgrp and chmod.
execute_process(COMMAND id -u OUTPUT_VARIABLE uid OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT uid STREQUAL "0" OR NOT "$ENV{DESTDIR}" STREQUAL "" OR NOT EXISTS "${VANTU_TMPFILES_CONF}")
  message(STATUS "Not applied (needs root and the installed file): ${VANTU_TMPFILES_CONF}")
  return()
endif()
find_program(TMPFILES systemd-tmpfiles)
if(TMPFILES)
  execute_process(COMMAND ${TMPFILES} --create "${VANTU_TMPFILES_CONF}" RESULT_VARIABLE failed)
else()
  execute_process(
    COMMAND sh -c "install -d -o root -g root -m 0755 /var/lib/Vantu && \
install -d -o root -g \"$1\" -m 2775 /var/lib/Vantu/Updater5" sh "${VANTU_UPDATE_GROUP}"
    RESULT_VARIABLE failed)
endif()
if(failed)
  message(WARNING "Could not create /var/lib/Vantu/Updater5; see README.md")
else()
  message(STATUS "Created /var/lib/Vantu/Updater5 (group ${VANTU_UPDATE_GROUP}, 2775)")
endif()
