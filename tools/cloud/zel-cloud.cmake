# The local cloud: a static library for in-process use by the tests, and the
# zel-cloud command that serves it. Included from CMakeLists.txt beside it.

# The support console's page, script and style, built into the binary.
file(GLOB ZEL_CONSOLE_FILES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/console/*.html
  ${CMAKE_CURRENT_LIST_DIR}/console/*.css ${CMAKE_CURRENT_LIST_DIR}/console/*.js)
add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.cpp
  COMMAND ${CMAKE_COMMAND} -DDIR=${CMAKE_CURRENT_LIST_DIR}/console
    -DOUTPUT=${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.cpp -P ${CMAKE_CURRENT_LIST_DIR}/console/Embed.cmake
  DEPENDS ${ZEL_CONSOLE_FILES} ${CMAKE_CURRENT_LIST_DIR}/console/Embed.cmake
  COMMENT "Embedding the support console"
  VERBATIM)

add_library(zel_cloud STATIC
  ${CMAKE_CURRENT_BINARY_DIR}/ConsoleFiles.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Cloud.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CloudSettings.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ConsolePage.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ControlServer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DaService.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DeviceRegistry.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DrmpRegistry.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DrmpService.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FaultPlan.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MultipartParser.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PayloadFaults.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PayloadServer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PlainServer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RecordedRequest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RelayServer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RequestLog.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Service.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SessionRegistry.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SpeedTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/StreamRegistry.cpp
  ${CMAKE_CURRENT_LIST_DIR}/StreamViewer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SuService.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SvService.cpp
  ${CMAKE_CURRENT_LIST_DIR}/UpdatePublisher.cpp
  ${CMAKE_CURRENT_LIST_DIR}/UpdateRegistry.cpp)
target_include_directories(zel_cloud PUBLIC ${CMAKE_SOURCE_DIR})
target_link_libraries(zel_cloud PUBLIC zel_tls_server PkgConfig::JSONCPP OpenSSL::Crypto
  Threads::Threads)
target_link_libraries(zel_cloud PUBLIC zel_pack)

add_executable(zel-cloud ${CMAKE_CURRENT_LIST_DIR}/main.cpp)
target_link_libraries(zel-cloud PRIVATE zel_cloud)
