# Where installed things are that more than one program names.
set(ORVEXD_ENVIRONMENT_FILE "" CACHE FILEPATH
    "File with the five KELVRA_ variables for the service (empty: default/orvexd below SYSCONFDIR)")
if(NOT ORVEXD_ENVIRONMENT_FILE)
  # Not kept in the cache: it follows the installation prefix.
  set(ORVEXD_ENVIRONMENT_FILE "${CMAKE_INSTALL_FULL_SYSCONFDIR}/default/orvexd")
endif()
set(ORVEXD_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE PATH
    "Where the unit is installed; relative to the installation prefix unless absolute")
set(ORVEXD_SYSUSERS_DIR "lib/sysusers.d" CACHE PATH
    "Where the definition of group positioning is installed; relative to the prefix unless absolute")

# Looks for what keeps the daemon from its work: before its start, and for "orvexctl doctor".
set(ORVEXD_PROBE "${CMAKE_INSTALL_FULL_LIBEXECDIR}/orvexd-probe")
