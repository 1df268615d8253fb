# The install-time half of packaging/CMakeLists.txt (run by cmake --install
# and cpack, with CMAKE_INSTALL_PREFIX the prefix being installed to).

# Writes TEMPLATE (NAME.in) to DESTINATION/NAME under the prefix, with
# @prefix@, @bindir@, @libdir@, @includedir@ and @version@ replaced.
function(tarvex_install_configured template destination)
  set(prefix "${CMAKE_INSTALL_PREFIX}")
  set(bindir "${prefix}/${tarvex_bindir}")
  set(libdir "${prefix}/${tarvex_libdir}")
  set(includedir "${prefix}/${tarvex_includedir}")
  set(version "${tarvex_version}")
  get_filename_component(name "${template}" NAME_WLE)
  set(target "${prefix}/${destination}/${name}")
  message(STATUS "Installing: $ENV{DESTDIR}${target}")
  configure_file("${template}" "$ENV{DESTDIR}${target}" @ONLY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${target}")
  set(CMAKE_INSTALL_MANIFEST_FILES "${CMAKE_INSTALL_MANIFEST_FILES}" PARENT_SCOPE)
endfunction()

# Writes the Debian changelog TEMPLATE, with @version@, @release@,
# @maintainer@ and @date@ (now, or SOURCE_DATE_EPOCH's time) replaced, to
# DESTINATION/changelog.Debian.gz under the prefix, compressed with
# gzip -9n as Debian wants it.
function(tarvex_install_debian_changelog template destination)
  set(version "${tarvex_version}")
  set(release "${tarvex_release}")
  set(maintainer "${tarvex_maintainer}")
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  set(target "${CMAKE_INSTALL_PREFIX}/${destination}/changelog.Debian")
  message(STATUS "Installing: $ENV{DESTDIR}${target}.gz")
  configure_file("${template}" "$ENV{DESTDIR}${target}" @ONLY)
  execute_process(COMMAND gzip -9nf "$ENV{DESTDIR}${target}" RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "gzip of $ENV{DESTDIR}${target} failed")
  endif()
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${target}.gz")
  set(CMAKE_INSTALL_MANIFEST_FILES "${CMAKE_INSTALL_MANIFEST_FILES}" PARENT_SCOPE)
endfunction()

# Installs FILE as DIRECTORY/NAME (an absolute folder) unless a file of that
# name is there already: configuration an operator may have changed.  A
# folder that cannot be made (an unprivileged install without DESTDIR) is
# a warning: the same files are among the examples.
function(tarvex_install_config_once file directory name)
  set(target "$ENV{DESTDIR}${directory}/${name}")
  if(EXISTS "${target}")
    message(STATUS "Keeping: ${target}")
    return()
  endif()
  execute_process(COMMAND "${CMAKE_COMMAND}" -E make_directory "$ENV{DESTDIR}${directory}"
                  RESULT_VARIABLE failed OUTPUT_QUIET ERROR_QUIET)
  if(failed)
    message(WARNING "Cannot make $ENV{DESTDIR}${directory}: ${name} not installed there")
    return()
  endif()
  file(INSTALL "${file}" DESTINATION "${directory}" RENAME "${name}"
       PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

# The same for a template (NAME.in, with the replacements of
# tarvex_install_configured), written first to SCRATCH.
function(tarvex_install_configured_once template scratch directory)
  set(prefix "${CMAKE_INSTALL_PREFIX}")
  set(bindir "${prefix}/${tarvex_bindir}")
  get_filename_component(name "${template}" NAME_WLE)
  configure_file("${template}" "${scratch}/${name}" @ONLY)
  tarvex_install_config_once("${scratch}/${name}" "${directory}" "${name}")
endfunction()
