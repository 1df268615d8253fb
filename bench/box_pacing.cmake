# The plug-in frame's costs on the request path and the pacing rate that
# processes sharing one file achieve; prints its figures, asserts nothing.
add_executable(box_pacing ${CMAKE_CURRENT_LIST_DIR}/box_pacing.cpp)
target_link_libraries(box_pacing PRIVATE tarvex_box_internal)
