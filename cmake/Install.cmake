# Installed like any Linux application: the programs, their manual page and completions, the
# desktop entry, the icon theme files, the AppStream metadata, the systemd user unit and the
# Debian documentation files, each in its usual place under the prefix. Included after every
# program is declared, so the tray is installed when it was built.
#
# The per-user autostart entry ($XDG_CONFIG_HOME/autostart/vell.desktop) is not installed:
# Vell writes it itself when it first opens, and removes it when the user turns "open at
# login" off. An entry under /etc/xdg/autostart would start Vell for every user even after
# they had turned it off. What that entry needs from the installation is here: the program
# it names beside `vell` (vell-tray, or `vell daemon` without the tray) and the icon, named
# after the application's id.

include(GNUInstallDirs)

# The application's identifier: the desktop entry, the AppStream component and the name the
# tray gives the desktop (QGuiApplication::setDesktopFileName) so windows find their icon.
set(VELL_APP_ID "app.quillon.Vell")  # base/application_id.h says the same
# Date of this version's release, for the AppStream metadata and the Debian changelog;
# moved on together with the project version.
set(VELL_RELEASE_DATE "2026-11-23")

install(TARGETS vell RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET vell-tray)
  install(TARGETS vell-tray RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  set(VELL_DESKTOP_EXEC "vell-tray")
else()
  # Without the tray the menu entry starts the headless host; `vell` commands talk to it.
  set(VELL_DESKTOP_EXEC "vell daemon")
endif()

# The manual page (compressed, as manual pages are installed) and the bash and zsh
# completions, written by vell from its command table after each link.
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/vell.1.gz
  COMMAND gzip -9nc vell.1 > vell.1.gz
  DEPENDS vell
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  VERBATIM)
install(FILES ${CMAKE_BINARY_DIR}/vell.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_BINARY_DIR}/vell.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vell)
install(FILES ${CMAKE_BINARY_DIR}/_vell DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
install(FILES ${CMAKE_BINARY_DIR}/vell.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)

configure_file(${CMAKE_SOURCE_DIR}/data/${VELL_APP_ID}.desktop.in ${CMAKE_BINARY_DIR}/${VELL_APP_ID}.desktop @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/${VELL_APP_ID}.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
configure_file(${CMAKE_SOURCE_DIR}/data/${VELL_APP_ID}.metainfo.xml.in ${CMAKE_BINARY_DIR}/${VELL_APP_ID}.metainfo.xml @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/${VELL_APP_ID}.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)

# The systemd user unit names the program by its installed path, which is known only when
# installing (`cmake --install --prefix`, or /usr inside the package), so it is written then.
# Each installation writes its own copy under its destination: two at once never share a file.
install(CODE "
  set(CMAKE_INSTALL_FULL_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  set(unit \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/user/vell.service\")
  message(STATUS \"Installing: \${unit}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/data/vell.service.in\" \"\${unit}\" @ONLY)
  file(CHMOD \"\${unit}\" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${unit}\")
")

# Icons. The SVG files under data/icons are the only source; the PNG sizes that older panels
# and menus ask for are rendered from them at build time, so a picture can never drift from
# its SVG. Below 32 pixels the mark drawn on a 16-pixel grid stays sharp.
set(VELL_ICON_DIR ${CMAKE_SOURCE_DIR}/data/icons)
set(VELL_HICOLOR ${CMAKE_INSTALL_DATADIR}/icons/hicolor)
install(FILES ${VELL_ICON_DIR}/vell.svg DESTINATION ${VELL_HICOLOR}/scalable/apps RENAME ${VELL_APP_ID}.svg)
file(GLOB VELL_STATUS_ICONS ${VELL_ICON_DIR}/status/*.svg)
install(FILES ${VELL_STATUS_ICONS} DESTINATION ${VELL_HICOLOR}/scalable/status)
file(GLOB VELL_SYMBOLIC_ICONS ${VELL_ICON_DIR}/symbolic/*.svg)
install(FILES ${VELL_SYMBOLIC_ICONS} DESTINATION ${VELL_HICOLOR}/symbolic/status)

find_program(RSVG_CONVERT rsvg-convert)
if(RSVG_CONVERT)
  set(VELL_PNG_ICONS)
  foreach(size 16 22 24 32 48 64 128 256)
    if(size LESS 32)
      set(source ${VELL_ICON_DIR}/vell-small.svg)
    else()
      set(source ${VELL_ICON_DIR}/vell.svg)
    endif()
    set(png ${CMAKE_BINARY_DIR}/icons/${size}x${size}/${VELL_APP_ID}.png)
    add_custom_command(OUTPUT ${png}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/icons/${size}x${size}
      COMMAND ${RSVG_CONVERT} --width ${size} --height ${size} --output ${png} ${source}
      DEPENDS ${source}
      VERBATIM)
    list(APPEND VELL_PNG_ICONS ${png})
    install(FILES ${png} DESTINATION ${VELL_HICOLOR}/${size}x${size}/apps)
  endforeach()
else()
  message(WARNING "rsvg-convert (librsvg2-bin) not found: only the scalable icons are installed")
endif()
set(VELL_MANUAL_PAGES ${CMAKE_BINARY_DIR}/vell.1.gz)
if(TARGET vell-tray)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/vell-tray.1.gz
    COMMAND gzip -9nc ${CMAKE_SOURCE_DIR}/data/vell-tray.1 > ${CMAKE_BINARY_DIR}/vell-tray.1.gz
    DEPENDS ${CMAKE_SOURCE_DIR}/data/vell-tray.1
    VERBATIM)
  list(APPEND VELL_MANUAL_PAGES ${CMAKE_BINARY_DIR}/vell-tray.1.gz)
  install(FILES ${CMAKE_BINARY_DIR}/vell-tray.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
add_custom_target(vell_install_data ALL DEPENDS ${VELL_MANUAL_PAGES} ${VELL_PNG_ICONS})

# Debian's documentation files: the copyright in the machine-readable format, and the
# package's changelog, compressed as Debian policy asks (written in cmake/Package.cmake).
install(FILES ${CMAKE_SOURCE_DIR}/data/debian/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})

include(${CMAKE_SOURCE_DIR}/cmake/Package.cmake)
