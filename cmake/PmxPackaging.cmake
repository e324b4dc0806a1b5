# Debian packages through CPack (cpack -G DEB in the build directory, or make package).
#
# Three install components, one package each:
#   runtime  libpmx<major>   libpmx.so.<major>, libpmxhost.so.<major> (the host platform has the
#                            same version and SONAME major, so it travels in the same package) and
#                            the default capability file the platform reads at run time
#   dev      libpmx-dev      headers, the unversioned .so links, libpmx.pc, the CMake package,
#                            the .proto schema; depends on exactly the same runtime version
#   tools    libpmx-tools    the pmx tool and its bash completion
# Depends come from dpkg-shlibdeps (native builds), the tools' dependency on the runtime too: see
# cmake/PmxDebShlibs.cmake. The dev package has no binaries; its Depends are listed here.
# Files land under /usr with the tree's own libdir (lib unless CMAKE_INSTALL_LIBDIR says otherwise).

set(PMX_PACKAGE_MAINTAINER "libpmx maintainers <libpmx@example.org>"
    CACHE STRING "Maintainer field of the Debian packages")
set(PMX_PACKAGE_RELEASE 1 CACHE STRING "Debian revision of the packages (the part after the '-')")

set(pmx_runtime_package libpmx${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libpmx)
set(CPACK_PACKAGE_VENDOR "libpmx")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${PMX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Each component's description below starts with its own synopsis line. CPack puts the project's
# summary before it unless the summary is CPack's built-in default, so it is left at that default.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)

set(CPACK_DEBIAN_PACKAGE_RELEASE ${PMX_PACKAGE_RELEASE})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(pmx_deb_version "${PROJECT_VERSION}-${PMX_PACKAGE_RELEASE}")

# Architecture: dpkg's own for a native build; the cross toolchain's triplet mapped by
# dpkg-architecture otherwise. dpkg-shlibdeps runs for native builds only (it reads the
# host's package database, which knows nothing of the target's libraries).
if(CMAKE_CROSSCOMPILING)
  if(CMAKE_LIBRARY_ARCHITECTURE)
    execute_process(COMMAND dpkg-architecture -t${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
                    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
                    ERROR_QUIET)
  endif()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()

# runtime
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${pmx_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The shlibs file of the runtime (only it ships shared libraries): users depend on at least the
# version they were built against; an incompatible change bumps the SONAME, hence the package name.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "port identity mapping library
libpmx answers, from memory, how the identities of a port of a modular
switch relate: interface indexes, global and local physical port ids,
module ids and chip ports, device / slot / sub-slot / panel ports, card
and subcard ids. This package holds the shared library, the host platform
library it runs on (logging, database client, timers, capabilities, debug
shell) and the default capability file.")

# dev
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libpmx-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
# The headers include protobuf-c's, and libpmx.pc requires libprotobuf-c.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${pmx_runtime_package} (= ${pmx_deb_version}), libprotobuf-c-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "port identity mapping library - development files
Headers of libpmx and of its host platform, the unversioned shared
library links, the pkg-config file (libpmx), the CMake package
(find_package(libpmx), target libpmx::pmx) and the .proto schema of the
records the library reads.")

# tools
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME libpmx-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "port identity mapping library - command-line tool
pmx decodes and prints records, loads and generates chassis records,
reads them back through the library, answers identity queries, dumps the
library's tables, follows changes and talks to the debug shell of running
processes. Bash completion included.")

# dpkg-shlibdeps runs in the staging tree of the component it packages; the runtime's sits
# beside it.
set(CPACK_PMX_RUNTIME_COMPONENT runtime)
set(CPACK_PMX_LIBDIR ${CMAKE_INSTALL_LIBDIR})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ../${CPACK_PMX_RUNTIME_COMPONENT}${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/PmxDebShlibs.cmake)

include(CPack)
