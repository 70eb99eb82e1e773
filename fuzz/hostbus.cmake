# The two halves of the host bus, which are no part of the library.
set(hostbus ${PROJECT_SOURCE_DIR}/platform/host/ubus)
set(daemon access.cpp bus.cpp client.cpp traffic.cpp)
list(TRANSFORM daemon PREPEND ${hostbus}/daemon/)
tavrik_fuzz(hostbus_daemon ${daemon})
target_include_directories(fuzz-hostbus_daemon PRIVATE ${hostbus}/daemon ${hostbus}/include)
target_link_libraries(fuzz-hostbus_daemon PRIVATE Ubox::ubox Ubox::blobmsg_json)

# The client does its waiting in the fuzz target.
set(client acl.c connection.c event.c io.c object.c request.c)
list(TRANSFORM client PREPEND ${hostbus}/client/)
set_source_files_properties(${client} PROPERTIES
  COMPILE_DEFINITIONS "connect=fuzz_connect;poll=fuzz_poll;clock_gettime=fuzz_clock_gettime")
tavrik_fuzz(hostbus_client ${client})
target_include_directories(fuzz-hostbus_client BEFORE PRIVATE ${hostbus}/include)
