# What is installed where, and the Debian package.
include(CMakePackageConfigHelpers)

# No distribution packages libubox and libuci: where one is that of .deps, the installation carries a copy in a folder
# of its own, which only what is installed beside it searches.
set(private_libraries "")
foreach(library ${Ubox_LIBRARY} ${Ubox_JSON_LIBRARY} ${Uci_LIBRARY})
  string(FIND "${library}" "${PROJECT_SOURCE_DIR}/.deps/" at)
  if(at EQUAL 0)
    list(APPEND private_libraries ${library})
  endif()
endforeach()
set(private_folder ${CMAKE_INSTALL_LIBDIR}/tavrik)
install(FILES ${private_libraries} DESTINATION ${private_folder})

file(RELATIVE_PATH to_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set(library_path "")
if(TARGET tavrik_hostbus)
  list(APPEND library_path "$ORIGIN")
endif()
if(private_libraries)
  list(APPEND library_path "$ORIGIN/tavrik")
endif()
foreach(target tavriksdk tavrik_hostbus)
  if(TARGET ${target})
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${library_path}")
  endif()
endforeach()
foreach(target tavrikctl tavrik-sim tavrik-ubusd)
  if(TARGET ${target})
    set_target_properties(${target} PROPERTIES
      INSTALL_RPATH "$ORIGIN/${to_libraries};$ORIGIN/${to_libraries}/tavrik")
  endif()
endforeach()

install(TARGETS tavriksdk LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/tavrik_sdk.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

file(RELATIVE_PATH pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix ${pc_to_prefix})
configure_file(packaging/tavriksdk.pc.in packaging/tavriksdk.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/tavriksdk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(cmake_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Tavrik)
configure_package_config_file(packaging/TavrikConfig.cmake.in packaging/TavrikConfig.cmake
  INSTALL_DESTINATION ${cmake_folder} PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(packaging/TavrikConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/TavrikConfig.cmake
  ${PROJECT_BINARY_DIR}/packaging/TavrikConfigVersion.cmake DESTINATION ${cmake_folder})

set(doc_folder ${CMAKE_INSTALL_DATADIR}/doc/tavriksdk)
install(FILES LICENSE README.md CHANGELOG.md DESTINATION ${doc_folder})
install(DIRECTORY docs DESTINATION ${doc_folder})
install(DIRECTORY examples DESTINATION ${doc_folder} FILES_MATCHING PATTERN "*.c")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavriksdk)
set(CPACK_PACKAGE_VENDOR "Tavrik SDK maintainers")
set(CPACK_PACKAGE_CONTACT "Tavrik SDK maintainers <maintainers@tavrik.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "Library and header for applications on the module, the command line tavrikctl,
and a simulator that runs an application unmodified inside a simulated module.")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libcurl4, ca-certificates") # loaded and read when a firmware URL is checked
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
# What the programs need of the system is read from them; the copies belong to no package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR}/.deps/native/lib)
include(CPack)
