# The server program tarvex-gridftp-server.
find_library(TARVEX_LIBCRYPT crypt REQUIRED)

# What clients send, parsed, log fields, escaped, the transfer and audit
# logs, and the metrics table and its HTTP responder:
# pieces without a session, linked by the program, its unit tests and fuzz
# harnesses (include directory src/server).
add_library(tarvex_server_parse STATIC
  src/server/parse.cpp
  src/server/list_args.cpp
  src/server/line_ends.cpp
  src/server/log.cpp
  src/server/xferlog.cpp
  src/server/audit.cpp
  src/server/metrics.cpp
  src/server/metrics_http.cpp)
target_include_directories(tarvex_server_parse PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/src/server)
target_link_libraries(tarvex_server_parse PUBLIC tarvex_gridftp_server Threads::Threads)
add_executable(tarvex-gridftp-server
  src/server/main.cpp
  src/server/options.cpp
  src/server/config_file.cpp
  src/server/setup.cpp
  src/server/listener.cpp
  src/server/session.cpp
  src/server/commands_login.cpp
  src/server/commands_info.cpp
  src/server/commands_fs.cpp
  src/server/commands_data.cpp
  src/server/commands_list.cpp
  src/server/control.cpp
  src/server/conn.cpp
  src/server/data_channel.cpp
  src/server/transfer.cpp
  src/server/provider.cpp
  src/server/plugin_thread.cpp
  src/server/listing.cpp
  src/server/path.cpp
  src/server/auth.cpp
  src/server/config_data.cpp
  src/server/tls.cpp
  src/server/mark_registry.cpp)
# --version prints the project's version; plug-ins are looked for by
# default in the library folder (see --dsi-path).
target_compile_definitions(tarvex-gridftp-server PRIVATE
  TARVEX_VERSION="${CMAKE_PROJECT_VERSION}"
  TARVEX_PLUGIN_DIR_FROM_BINDIR="${TARVEX_LIBDIR_FROM_BINDIR}")
target_link_libraries(tarvex-gridftp-server PRIVATE
  tarvex_server_parse tarvex_gridftp_server tarvex_common tarvex_common_internal
  OpenSSL::SSL OpenSSL::Crypto ${TARVEX_LIBCRYPT} Threads::Threads)
set_target_properties(tarvex-gridftp-server PROPERTIES
  INSTALL_RPATH "$ORIGIN/${TARVEX_LIBDIR_FROM_BINDIR}")
install(TARGETS tarvex-gridftp-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Its listing walk is declared to the session but holds a file-local writer,
# which GCC reports once the file is included by another
# (-Wsubobject-linkage): compiled alone in a unity build (TARVEX_UNITY).
set_source_files_properties(src/server/commands_list.cpp PROPERTIES
  SKIP_UNITY_BUILD_INCLUSION ON)
