# Run by cpack once every component is staged, before any package is built: writes the runtime's
# shlibs entries (one per SONAME it ships) into DEBIAN/shlibs at the top of the staging tree. The
# tools' dpkg-shlibdeps finds libpmx.so.<major> in the runtime's staging tree (-l, relative to the
# tools' own) and, walking up from there, this file: that is how the tools depend on the runtime
# without the runtime being installed. The runtime package's own shlibs file says the same.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()
find_program(pmx_objdump NAMES ${CPACK_OBJDUMP_EXECUTABLE} objdump REQUIRED)
set(pmx_stage ${CPACK_TEMPORARY_DIRECTORY})
set(pmx_version "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(pmx_shlibs "")
file(GLOB pmx_libs LIST_DIRECTORIES false
     "${pmx_stage}/${CPACK_PMX_RUNTIME_COMPONENT}${CPACK_PACKAGING_INSTALL_PREFIX}/${CPACK_PMX_LIBDIR}/*.so.*")
foreach(lib IN LISTS pmx_libs)
  if(IS_SYMLINK "${lib}")
    continue()
  endif()
  execute_process(COMMAND ${pmx_objdump} -p "${lib}" OUTPUT_VARIABLE dyn COMMAND_ERROR_IS_FATAL ANY)
  if(dyn MATCHES "SONAME +(lib[^ \n]+)\\.so\\.([0-9]+)\n")
    string(APPEND pmx_shlibs "${CMAKE_MATCH_1} ${CMAKE_MATCH_2} ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME}"
                             " (${CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY} ${pmx_version})\n")
  endif()
endforeach()
if(pmx_shlibs STREQUAL "")
  message(FATAL_ERROR "no versioned shared library staged in ${pmx_stage}/${CPACK_PMX_RUNTIME_COMPONENT}")
endif()
file(WRITE "${pmx_stage}/DEBIAN/shlibs" "${pmx_shlibs}")
