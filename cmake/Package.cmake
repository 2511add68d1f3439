# The Debian package (`cpack -G DEB`, or scripts/package): everything `cmake --install` puts
# under the prefix, installed under /usr, with the dependencies that dpkg-shlibdeps reads
# from the programs plus the libraries they load at run time.

set(VELL_PACKAGE_MAINTAINER "The Vell developers <packages@quillon.app>"
  CACHE STRING "Maintainer named in the Debian package")

set(CPACK_PACKAGE_NAME "vell")
set(CPACK_PACKAGE_VENDOR "The Vell developers")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${VELL_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${VELL_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_DEBIAN_PACKAGE_RELEASE "1")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "sound")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "records conversations on this computer and uploads them")
if(TARGET vell-tray)
  set(VELL_PACKAGE_PROGRAMS "The package holds the tray application `vell-tray`, the command-line program
and headless host `vell`, and its systemd user unit.")
else()
  set(VELL_PACKAGE_PROGRAMS "The package holds the command-line program and headless host `vell` and its
systemd user unit.")
endif()
set(CPACK_PACKAGE_DESCRIPTION
"Vell records the conversations held on this computer: the microphone and, for
calls held on headphones, what the computer plays, mixed into one AAC file.
Recordings stay on this computer until the Vell service has them; the service
transcribes them, separates the speakers and summarises them.

It records calls by itself when a call application uses the microphone and the
speakers, records the meetings of the user's calendars, and keeps the last
minutes of the microphone in insurance mode so missed speech can be recovered.

${VELL_PACKAGE_PROGRAMS}")

set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# FFmpeg's libraries are opened on first use rather than linked, so dpkg-shlibdeps cannot
# see them: name each package (library name and soname major, as Debian does).
set(VELL_PACKAGE_DEPENDS "")
foreach(library libavcodec libavutil libswresample libavformat)
  string(REGEX MATCH "^[0-9]+" major "${ffmpeg_PC_${library}_VERSION}")
  if(NOT major)
    message(FATAL_ERROR "no version of ${library} from pkg-config")
  endif()
  if(VELL_PACKAGE_DEPENDS)
    string(APPEND VELL_PACKAGE_DEPENDS ", ")
  endif()
  string(APPEND VELL_PACKAGE_DEPENDS "${library}${major}")
endforeach()
# libcurl and libsecret too are opened on first use (their sonames' packages).
string(APPEND VELL_PACKAGE_DEPENDS ", libcurl4, libsecret-1-0")
if(TARGET vell-tray)
  # Qt draws the SVG icons through a plugin that no program links.
  string(APPEND VELL_PACKAGE_DEPENDS ", libqt6svg6")
endif()
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${VELL_PACKAGE_DEPENDS}")
# The user unit is a D-Bus service of the user's session bus; recordings need a sound server.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "dbus-user-session, pipewire-pulse | pulseaudio")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "gnome-shell-extension-appindicator")

# The Debian changelog of this package version, compressed without a time stamp so the same
# source makes the same package.
execute_process(COMMAND date -u -R -d "${VELL_RELEASE_DATE} 12:00:00"
  OUTPUT_VARIABLE VELL_RELEASE_DATE_RFC2822 OUTPUT_STRIP_TRAILING_WHITESPACE)
configure_file(${CMAKE_SOURCE_DIR}/data/debian/changelog.in ${CMAKE_BINARY_DIR}/debian/changelog.Debian @ONLY)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz
  COMMAND gzip -9nc changelog.Debian > changelog.Debian.gz
  DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog.Debian
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/debian
  VERBATIM)
add_custom_target(vell_debian_changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz)
install(FILES ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})

include(CPack)
