# libuci ships no package files. Targets: Uci::uci, and Uci::program where the program is installed.
# Override with Uci_INCLUDE_DIR, Uci_LIBRARY, Uci_PROGRAM.
find_path(Uci_INCLUDE_DIR uci.h)
find_library(Uci_LIBRARY uci)
find_program(Uci_PROGRAM uci)
mark_as_advanced(Uci_INCLUDE_DIR Uci_LIBRARY Uci_PROGRAM)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Uci
  REASON_FAILURE_MESSAGE "run scripts/deps" REQUIRED_VARS Uci_LIBRARY Uci_INCLUDE_DIR)
if(Uci_FOUND AND NOT TARGET Uci::uci)
  add_library(Uci::uci SHARED IMPORTED)
  set_target_properties(Uci::uci PROPERTIES IMPORTED_LOCATION "${Uci_LIBRARY}" IMPORTED_NO_SONAME TRUE
    INTERFACE_INCLUDE_DIRECTORIES "${Uci_INCLUDE_DIR}" INTERFACE_LINK_LIBRARIES Ubox::ubox)
  if(Uci_PROGRAM)
    add_executable(Uci::program IMPORTED)
    set_target_properties(Uci::program PROPERTIES IMPORTED_LOCATION "${Uci_PROGRAM}")
  endif()
endif()
