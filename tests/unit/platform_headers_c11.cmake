# Every public header of the platform compiles on its own as C11, with
# -Wall -Wextra -Werror -pedantic: storage plug-ins may be written in C, and
# a header that leans on C++ or on a GNU extension, or that forgets an
# include of its own, would fail them first.  Each header is included twice
# (its guard must hold); one more test includes them all together.
file(GLOB tarvex_public_headers CONFIGURE_DEPENDS
  ${TARVEX_SOURCE_ROOT}/platform/*/include/*.h)
list(SORT tarvex_public_headers)
set(c11_flags -std=c11 -Wall -Wextra -Werror -pedantic -Wstrict-prototypes -fsyntax-only)
set(c11_includes)
foreach(header ${tarvex_public_headers})
  get_filename_component(dir ${header} DIRECTORY)
  list(APPEND c11_includes -I${dir})
endforeach()
list(REMOVE_DUPLICATES c11_includes)

set(c11_dir ${CMAKE_CURRENT_BINARY_DIR}/c11-headers)
set(all_text "")
foreach(header ${tarvex_public_headers})
  get_filename_component(name ${header} NAME_WE)
  file(CONFIGURE OUTPUT ${c11_dir}/${name}.c
       CONTENT "#include \"${header}\"\n#include \"${header}\"\n")
  string(APPEND all_text "#include \"${header}\"\n")
  add_test(NAME c11_header.${name}
           COMMAND ${CMAKE_C_COMPILER} ${c11_flags} ${c11_includes} ${c11_dir}/${name}.c)
  set_tests_properties(c11_header.${name} PROPERTIES LABELS unit)
endforeach()
file(CONFIGURE OUTPUT ${c11_dir}/all_headers.c CONTENT "${all_text}")
add_test(NAME c11_header.all_together
         COMMAND ${CMAKE_C_COMPILER} ${c11_flags} ${c11_includes} ${c11_dir}/all_headers.c)
set_tests_properties(c11_header.all_together PROPERTIES LABELS unit)
