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

# Each header is the compiler's -include (twice), of an empty C file.
set(c11_all)
foreach(header ${tarvex_public_headers})
  get_filename_component(name ${header} NAME_WE)
  add_test(NAME c11_header.${name} COMMAND ${CMAKE_C_COMPILER} ${c11_flags} ${c11_includes}
           -include ${header} -include ${header} -x c /dev/null)
  set_tests_properties(c11_header.${name} PROPERTIES LABELS unit)
  list(APPEND c11_all -include ${header})
endforeach()
add_test(NAME c11_header.all_together
         COMMAND ${CMAKE_C_COMPILER} ${c11_flags} ${c11_includes} ${c11_all} -x c /dev/null)
set_tests_properties(c11_header.all_together PROPERTIES LABELS unit)
