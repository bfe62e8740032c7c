# SPDX-License-Identifier: Apache-2.0
# Installs the files that depend on the prefix or on existing files. CMakeLists.txt sets `packaging`
# (this folder), `work` (a scratch folder) and `sbin`.

# The unit contains keeld's path.
set(line "ExecStart=/usr/sbin/keeld")
file(READ ${packaging}/systemd/keeld.service unit)
if(NOT unit MATCHES "${line}\n")
  message(FATAL_ERROR "systemd/keeld.service has no line ${line}")
endif()
string(REPLACE "${line}\n" "ExecStart=${CMAKE_INSTALL_PREFIX}/${sbin}/keeld\n" unit "${unit}")
file(WRITE ${work}/keeld.service "${unit}")
file(INSTALL ${work}/keeld.service DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)

# Never overwrite the administrator's PAM service.
if(EXISTS "$ENV{DESTDIR}/etc/pam.d/keeld")
  message(STATUS "Left as it is: $ENV{DESTDIR}/etc/pam.d/keeld")
else()
  file(INSTALL ${packaging}/pam/keeld DESTINATION /etc/pam.d)
endif()
