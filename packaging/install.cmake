# SPDX-License-Identifier: Apache-2.0
# The files that depend on where they are installed, or on what is there already. CMakeLists.txt sets `packaging` (this folder),
# `work` (a folder to write to) and `sbin`.

# The unit names keeld by its path.
set(line "ExecStart=/usr/sbin/keeld")
file(READ ${packaging}/systemd/keeld.service unit)
if(NOT unit MATCHES "${line}\n")
  message(FATAL_ERROR "systemd/keeld.service has no line ${line}")
endif()
string(REPLACE "${line}\n" "ExecStart=${CMAKE_INSTALL_PREFIX}/${sbin}/keeld\n" unit "${unit}")
file(WRITE ${work}/keeld.service "${unit}")
file(INSTALL ${work}/keeld.service DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)

# How passwords are checked is the machine's business once it has been set up.
if(EXISTS "$ENV{DESTDIR}/etc/pam.d/keeld")
  message(STATUS "Left as it is: $ENV{DESTDIR}/etc/pam.d/keeld")
else()
  file(INSTALL ${packaging}/pam/keeld DESTINATION /etc/pam.d)
endif()
