# Finds Qpid Proton-C (header proton/proactor.h, library qpid-proton) and
# names it velclient::proton. Debian's pkg-config file for Proton points
# below /usr/lib, so the header and the library are looked up directly.
if(NOT TARGET velclient::proton)
  find_path(VELCLIENT_PROTON_INCLUDE_DIR proton/proactor.h)
  find_library(VELCLIENT_PROTON_LIBRARY qpid-proton)
  if(NOT VELCLIENT_PROTON_INCLUDE_DIR OR NOT VELCLIENT_PROTON_LIBRARY)
    message(FATAL_ERROR "velclient needs Qpid Proton-C (Debian: libqpid-proton11-dev)")
  endif()
  add_library(velclient::proton INTERFACE IMPORTED GLOBAL)
  set_target_properties(velclient::proton PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${VELCLIENT_PROTON_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${VELCLIENT_PROTON_LIBRARY}")
endif()
