# SPDX-License-Identifier: Apache-2.0
# Runs after CPack has written the packages: tidies the -dbgsym packages the way
# Debian's own are laid out. Their md5sums list the build machine's paths instead of
# the package's, and their documentation is the main package's: a symbolic link
# /usr/share/doc/<package>-dbgsym -> <package>.
list(GET CPACK_PACKAGE_FILES 0 first)
get_filename_component(outdir "${first}" DIRECTORY)
file(GLOB ddebs "${outdir}/*-dbgsym_*.ddeb")
foreach(ddeb ${ddebs})
  set(tree "${ddeb}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb -R "${ddeb}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND dpkg-deb -f "${ddeb}" Package OUTPUT_VARIABLE package
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE "-dbgsym$" "" main "${package}")
  file(MAKE_DIRECTORY "${tree}/usr/share/doc")
  file(CREATE_LINK "${main}" "${tree}/usr/share/doc/${package}" SYMBOLIC)
  file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE "${tree}" "${tree}/usr/*")
  list(SORT files)
  set(sums "")
  foreach(f ${files})
    if(NOT IS_SYMLINK "${tree}/${f}")
      file(MD5 "${tree}/${f}" sum)
      string(APPEND sums "${sum}  ${f}\n")
    endif()
  endforeach()
  file(WRITE "${tree}/DEBIAN/md5sums" "${sums}")
  execute_process(COMMAND dpkg-deb --root-owner-group -Zxz --build "${tree}" "${ddeb}"
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${tree}")
endforeach()
