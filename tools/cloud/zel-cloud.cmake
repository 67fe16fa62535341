# The local cloud: a static library for in-process use by the tests, and the
# zel-cloud command that serves it. Included from CMakeLists.txt beside it.
add_library(zel_cloud STATIC
  ${CMAKE_CURRENT_LIST_DIR}/Cloud.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CloudSettings.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ControlServer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DaService.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DeviceRegistry.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DrmpRegistry.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DrmpService.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FaultPlan.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PayloadFaults.cpp
  ${CMAKE_CURRENT_LIST_DIR}/PayloadServer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RecordedRequest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RequestLog.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Service.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SessionRegistry.cpp
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
