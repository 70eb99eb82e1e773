# libubox ships no package files. Targets: Ubox::ubox, Ubox::blobmsg_json.
# Override with Ubox_INCLUDE_DIR, Ubox_LIBRARY, Ubox_JSON_LIBRARY.
find_path(Ubox_INCLUDE_DIR libubox/blobmsg.h)
find_library(Ubox_LIBRARY ubox)
find_library(Ubox_JSON_LIBRARY blobmsg_json)
mark_as_advanced(Ubox_INCLUDE_DIR Ubox_LIBRARY Ubox_JSON_LIBRARY)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Ubox
  REASON_FAILURE_MESSAGE "run scripts/deps" REQUIRED_VARS Ubox_LIBRARY Ubox_JSON_LIBRARY Ubox_INCLUDE_DIR)
if(Ubox_FOUND AND NOT TARGET Ubox::ubox)
  add_library(Ubox::ubox SHARED IMPORTED)
  set_target_properties(Ubox::ubox PROPERTIES IMPORTED_LOCATION "${Ubox_LIBRARY}" IMPORTED_NO_SONAME TRUE
    INTERFACE_INCLUDE_DIRECTORIES "${Ubox_INCLUDE_DIR}")
  add_library(Ubox::blobmsg_json SHARED IMPORTED)
  set_target_properties(Ubox::blobmsg_json PROPERTIES IMPORTED_LOCATION "${Ubox_JSON_LIBRARY}"
    IMPORTED_NO_SONAME TRUE INTERFACE_LINK_LIBRARIES Ubox::ubox)
endif()
