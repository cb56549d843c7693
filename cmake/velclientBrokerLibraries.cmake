# Finds the client libraries of the broker sessions and names them:
# velclient::proton for Qpid Proton-C (AMQP 1.0; header proton/proactor.h,
# library qpid-proton) and velclient::mosquitto for libmosquitto (MQTT 5;
# header mosquitto.h, library mosquitto). Debian's pkg-config file for Proton
# points below /usr/lib, so headers and libraries are looked up directly.
function(velclient_import_library target header library package)
  if(TARGET ${target})
    return()
  endif()
  string(MAKE_C_IDENTIFIER "VELCLIENT_${library}" var)
  string(TOUPPER "${var}" var)
  find_path(${var}_INCLUDE_DIR ${header})
  find_library(${var}_LIBRARY ${library})
  if(NOT ${var}_INCLUDE_DIR OR NOT ${var}_LIBRARY)
    message(FATAL_ERROR "velclient needs ${library} (Debian: ${package})")
  endif()
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${${var}_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${${var}_LIBRARY}")
endfunction()

velclient_import_library(velclient::proton proton/proactor.h qpid-proton libqpid-proton11-dev)
velclient_import_library(velclient::mosquitto mosquitto.h mosquitto libmosquitto-dev)
