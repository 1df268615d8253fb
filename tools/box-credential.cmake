# tarvex-box-credential: the credential helper the server runs for the Box
# plug-in's "creds" and "renew-creds" (tools/box-credential).  It shares
# the plug-in's rule on which URLs may carry a credential, and its guards.
add_executable(tarvex-box-credential
  ${CMAKE_CURRENT_LIST_DIR}/box-credential/box_client.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box-credential/credential.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box-credential/credential_store.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box-credential/main.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box-credential/settings.cpp)
# --version prints the project's version.
target_compile_definitions(tarvex-box-credential PRIVATE
  TARVEX_VERSION="${CMAKE_PROJECT_VERSION}")
target_link_libraries(tarvex-box-credential PRIVATE
  tarvex_box_internal tarvex_dsi_rest tarvex_common PkgConfig::JANSSON)
# Installed, it finds the platform's libraries in ../lib/tarvex, wherever
# the prefix is.
set_target_properties(tarvex-box-credential PROPERTIES
  INSTALL_RPATH "$ORIGIN/${TARVEX_LIBDIR_FROM_BINDIR}")
install(TARGETS tarvex-box-credential RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
