# Data calls: what they take in from modem, radio interface layer and kernel. Two of them do the library's reading or waiting.
foreach(target pdp_info dotted if_inet6 data_calls)
  tavrik_fuzz(${target})
endforeach()
target_link_options(fuzz-if_inet6 PRIVATE -Wl,--wrap=fopen64)
target_link_options(fuzz-data_calls PRIVATE -Wl,--wrap=nanosleep,--wrap=posix_spawn)
