# What an installation gets: the library, its public headers under
# include/mfa/, a CMake package (find_package(mfa) gives mfa::mfa) and mfa.pc
# for pkg-config. All of it is the "library" install component; the tool, its
# manual page and the schema are installed beside it in the default one.

set(MFA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/mfa)

# The project's own programs and tests reach internal pieces (C++ helpers,
# test hooks), so they always link the archive. A shared installation is a
# second link of the same objects that exports the C interface only.
if(BUILD_SHARED_LIBS)
  set_target_properties(mfa PROPERTIES POSITION_INDEPENDENT_CODE ON)
  add_library(mfa_shared SHARED $<TARGET_OBJECTS:mfa>)
  mfa_usage_requirements(mfa_shared)
  set_target_properties(mfa_shared PROPERTIES
    OUTPUT_NAME mfa EXPORT_NAME mfa
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/mfa.map)
  target_link_options(mfa_shared PRIVATE
    -Wl,--version-script=${CMAKE_CURRENT_LIST_DIR}/mfa.map -Wl,--no-undefined)
  set(MFA_INSTALLED_LIBRARY mfa_shared)
else()
  set(MFA_INSTALLED_LIBRARY mfa)
endif()

install(TARGETS ${MFA_INSTALLED_LIBRARY} EXPORT mfaTargets COMPONENT library
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
foreach(header IN LISTS MFA_HEADERS)
  file(RELATIVE_PATH rel ${CMAKE_SOURCE_DIR} ${header})
  get_filename_component(rel_dir ${rel} DIRECTORY)
  if(NOT rel MATCHES "_internal\\.h$")
    install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mfa/${rel_dir}
            COMPONENT library)
  endif()
endforeach()

include(CMakePackageConfigHelpers)
install(EXPORT mfaTargets NAMESPACE mfa:: DESTINATION ${MFA_CMAKE_DIR} COMPONENT library)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/mfaConfig.cmake.in
  ${CMAKE_BINARY_DIR}/mfaConfig.cmake INSTALL_DESTINATION ${MFA_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/mfaConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/mfaConfig.cmake ${CMAKE_BINARY_DIR}/mfaConfigVersion.cmake
        DESTINATION ${MFA_CMAKE_DIR} COMPONENT library)

# The C++ runtime: what the C++ compiler links beyond the C compiler's own
# libraries. A C program linking the archive needs it named.
set(MFA_CXX_RUNTIME "")
foreach(lib IN LISTS CMAKE_CXX_IMPLICIT_LINK_LIBRARIES)
  if(NOT lib IN_LIST CMAKE_C_IMPLICIT_LINK_LIBRARIES)
    list(APPEND MFA_CXX_RUNTIME ${lib})
  endif()
endforeach()
if(NOT BUILD_SHARED_LIBS)
  target_link_libraries(mfa INTERFACE
    "$<INSTALL_INTERFACE:$<$<LINK_LANGUAGE:C>:${MFA_CXX_RUNTIME}>>")
endif()

# pkg-config. An archive's dependencies are every consumer's, so they go where
# a plain `pkg-config --libs mfa` sees them; a shared library carries them
# itself and lists them as private. The token headers are needed to compile
# only, hence always private.
list(TRANSFORM MFA_CXX_RUNTIME PREPEND -l OUTPUT_VARIABLE MFA_PC_SYSTEM_LIBS)
list(PREPEND MFA_PC_SYSTEM_LIBS -l${CMAKE_DL_LIBS})
list(JOIN MFA_PC_SYSTEM_LIBS " " MFA_PC_SYSTEM_LIBS)
if(BUILD_SHARED_LIBS)
  set(MFA_PC_REQUIRES "")
  set(MFA_PC_REQUIRES_PRIVATE "libpq libcrypto p11-kit-1")
  set(MFA_PC_LIBS "-L\${libdir} -lmfa")
  set(MFA_PC_LIBS_PRIVATE "${MFA_PC_SYSTEM_LIBS}")
else()
  set(MFA_PC_REQUIRES "libpq libcrypto")
  set(MFA_PC_REQUIRES_PRIVATE "p11-kit-1")
  set(MFA_PC_LIBS "-L\${libdir} -lmfa ${MFA_PC_SYSTEM_LIBS}")
  set(MFA_PC_LIBS_PRIVATE "")
endif()
# The prefix is found from the file's own place, so the file stays right
# wherever `cmake --install --prefix` puts the tree.
file(RELATIVE_PATH MFA_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" MFA_PC_PREFIX ${MFA_PC_PREFIX})
configure_file(${CMAKE_CURRENT_LIST_DIR}/mfa.pc.in ${CMAKE_BINARY_DIR}/mfa.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/mfa.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT library)
