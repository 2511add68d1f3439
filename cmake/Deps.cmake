find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(CLI11 REQUIRED)
find_package(fmt REQUIRED)
find_package(OpenSSL REQUIRED)

function(vell_pkg alias)
  pkg_check_modules(${alias}_PC REQUIRED IMPORTED_TARGET ${ARGN})
  add_library(vell::${alias} INTERFACE IMPORTED GLOBAL)
  target_link_libraries(vell::${alias} INTERFACE PkgConfig::${alias}_PC)
endfunction()

vell_pkg(pulse libpulse libpulse-simple)
vell_pkg(alsa alsa)
# The programs link no FFmpeg library: platform/codec loads libavcodec, libavutil and
# libswresample when the first encoder or resampler opens, and libavformat (for ".m4a"
# files) when the first MPEG-4 file is written; linking them would map some sixty
# libraries into every start. Their headers still describe the structs we use.
pkg_check_modules(ffmpeg_PC REQUIRED IMPORTED_TARGET libavcodec libavutil libswresample libavformat)
add_library(vell::ffmpeg INTERFACE IMPORTED GLOBAL)
target_include_directories(vell::ffmpeg INTERFACE ${ffmpeg_PC_INCLUDE_DIRS})
target_link_libraries(vell::ffmpeg INTERFACE ${CMAKE_DL_LIBS})
# For tests and tools that decode files back: the libraries themselves.
add_library(vell::avformat INTERFACE IMPORTED GLOBAL)
target_link_libraries(vell::avformat INTERFACE PkgConfig::ffmpeg_PC)
vell_pkg(webrtc webrtc-audio-processing)
# libcurl likewise: platform/http opens it on the first transfer (linking it maps its TLS,
# Kerberos, LDAP and SSH libraries into every start). Tools that call it directly link
# vell::curl_linked.
pkg_check_modules(curl_PC REQUIRED IMPORTED_TARGET libcurl)
add_library(vell::curl INTERFACE IMPORTED GLOBAL)
target_include_directories(vell::curl INTERFACE ${curl_PC_INCLUDE_DIRS})
target_link_libraries(vell::curl INTERFACE ${CMAKE_DL_LIBS})
add_library(vell::curl_linked INTERFACE IMPORTED GLOBAL)
target_link_libraries(vell::curl_linked INTERFACE PkgConfig::curl_PC)
vell_pkg(plist libplist-2.0)
# libsecret is opened by platform/secrets once a Secret Service answers on the bus.
pkg_check_modules(secret_PC REQUIRED IMPORTED_TARGET libsecret-1)
add_library(vell::secret INTERFACE IMPORTED GLOBAL)
target_include_directories(vell::secret INTERFACE ${secret_PC_INCLUDE_DIRS})
target_link_libraries(vell::secret INTERFACE ${CMAKE_DL_LIBS})
vell_pkg(systemd libsystemd)
vell_pkg(uuid uuid)
vell_pkg(sdbus sdbus-c++)
vell_pkg(sodium libsodium)
vell_pkg(httplib cpp-httplib)
vell_pkg(ical libical)

add_library(asio_headers INTERFACE)
target_compile_definitions(asio_headers INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
