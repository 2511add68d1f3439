include(GNUInstallDirs)
# The voice-activity model is fetched by scripts/bootstrap (scripts/fetch-speech-model) from
# its npm package; the build copies it beside the programs in the build tree and installs it
# under share/vell. Without it the programs still build, log that speech cannot be
# classified, and the tests that need it fail saying so.
set(VELL_SPEECH_MODEL_SOURCE ${CMAKE_SOURCE_DIR}/third_party/silero-vad/silero_vad.onnx
  CACHE FILEPATH "The Silero VAD ONNX file fetched by scripts/bootstrap")
set(VELL_SPEECH_MODEL_BUILD_PATH ${CMAKE_BINARY_DIR}/models/silero_vad.onnx)
if(EXISTS ${VELL_SPEECH_MODEL_SOURCE})
  configure_file(${VELL_SPEECH_MODEL_SOURCE} ${VELL_SPEECH_MODEL_BUILD_PATH} COPYONLY)
else()
  message(WARNING "No speech model at ${VELL_SPEECH_MODEL_SOURCE}: run scripts/bootstrap")
  file(REMOVE ${VELL_SPEECH_MODEL_BUILD_PATH})
endif()
target_compile_definitions(vell_platform_silero PRIVATE
  VELL_SPEECH_MODEL_BUILD_PATH="${VELL_SPEECH_MODEL_BUILD_PATH}")
# The forward pass is the one hot loop of the classifier.
set_source_files_properties(${CMAKE_SOURCE_DIR}/platform/silero/silero_vad.cpp PROPERTIES COMPILE_OPTIONS "-O3")
install(FILES ${VELL_SPEECH_MODEL_SOURCE} DESTINATION ${CMAKE_INSTALL_DATADIR}/vell RENAME silero_vad.onnx)
