# Descriptions of the library for other languages: a .gir file from its sources, a typelib for Python and
# JavaScript, a .vapi file for Vala. The scanner runs what it has built, so it is left out where programs of the
# build do not run here or want a sanitizer around them. Such a build takes the files of a native one: they are
# text, and the typelib holds no machine words beyond those of its own format.
if(CMAKE_CROSSCOMPILING OR ORVEXD_SANITIZE)
  set(introspection OFF)
else()
  set(introspection ON)
endif()
option(ORVEXD_INTROSPECTION "Describe the client library for other languages" ${introspection})
set(ORVEXD_INTROSPECTION_FROM "" CACHE PATH
    "Install the descriptions from this folder, which is client/ of another build directory")

# Two names for the same: "Orvex" is the name space, as it stands in programs; "OrvexClient" is the name of the
# library, for those who look for it by that.
set(descriptions OrvexClient-1.0.gir Orvex-1.0.gir OrvexClient-1.0.typelib Orvex-1.0.typelib
  orvexclient-1.0.vapi orvexclient-1.0.deps)
if(ORVEXD_INTROSPECTION_FROM)
  set(described "${ORVEXD_INTROSPECTION_FROM}")
elseif(ORVEXD_INTROSPECTION)
  find_program(G_IR_SCANNER g-ir-scanner REQUIRED)
  find_program(G_IR_COMPILER g-ir-compiler REQUIRED)
  find_program(VAPIGEN vapigen REQUIRED)
  set(described "${CMAKE_CURRENT_BINARY_DIR}")
  add_custom_command(
    OUTPUT Orvex-1.0.gir
    # The compiler's own flags only: those of this tree may hold what the scanner's little program cannot bear.
    COMMAND "${CMAKE_COMMAND}" -E env "CFLAGS=" "LDFLAGS=" "CC=${CMAKE_C_COMPILER}"
            "${G_IR_SCANNER}" --quiet --warn-all --warn-error --no-libtool
            --namespace=Orvex --nsversion=1.0 --identifier-prefix=Orvex --symbol-prefix=orvex
            --include=Gio-2.0 --pkg=gio-2.0 --pkg-export=orvexclient-1.0 --c-include=orvexclient.h
            --library=orvexclient-1.0 "--library-path=$<TARGET_FILE_DIR:orvexclient>"
            "-I${CMAKE_CURRENT_SOURCE_DIR}/include" "-I${CMAKE_CURRENT_SOURCE_DIR}/src"
            --output=Orvex-1.0.gir ${headers} ${public_sources}
    DEPENDS orvexclient ${headers} ${public_sources}
    COMMENT "Describing the client library" VERBATIM)
  add_custom_command(
    OUTPUT OrvexClient-1.0.gir
    COMMAND sed "s/<namespace name=\"Orvex\"/<namespace name=\"OrvexClient\"/" Orvex-1.0.gir > OrvexClient-1.0.gir
    DEPENDS Orvex-1.0.gir VERBATIM)
  foreach(name Orvex OrvexClient)
    add_custom_command(
      OUTPUT ${name}-1.0.typelib
      COMMAND "${G_IR_COMPILER}" --output=${name}-1.0.typelib ${name}-1.0.gir
      DEPENDS ${name}-1.0.gir VERBATIM)
  endforeach()
  add_custom_command(
    OUTPUT orvexclient-1.0.vapi
    COMMAND "${VAPIGEN}" --quiet --library=orvexclient-1.0 --pkg=gio-2.0
            "--metadatadir=${CMAKE_CURRENT_SOURCE_DIR}/vala" Orvex-1.0.gir
    DEPENDS Orvex-1.0.gir vala/Orvex-1.0.metadata VERBATIM)
  file(WRITE "${CMAKE_CURRENT_BINARY_DIR}/orvexclient-1.0.deps" "gio-2.0\n")
  add_custom_target(orvexclient_descriptions ALL
    DEPENDS OrvexClient-1.0.typelib Orvex-1.0.typelib orvexclient-1.0.vapi)
else()
  return()
endif()

foreach(file IN LISTS descriptions)
  if(file MATCHES "gir$")
    set(place "${CMAKE_INSTALL_DATADIR}/gir-1.0")
  elseif(file MATCHES "typelib$")
    set(place "${CMAKE_INSTALL_LIBDIR}/girepository-1.0")
  else()
    set(place "${CMAKE_INSTALL_DATADIR}/vala/vapi")
  endif()
  install(FILES "${described}/${file}" DESTINATION "${place}" COMPONENT development)
endforeach()
