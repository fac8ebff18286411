# Values that belong to a deployment, not to the code. Override them with -D on the command line.
set(ORVEXD_SERVER_URL "https://slp.kelvra.example:443/slp/2.0" CACHE STRING
    "Positioning server: an HTTPS URL with an explicit port")
set(ORVEXD_SLP_XMLNS "http://slp.kelvra.example/slp/2.0" CACHE STRING
    "Namespace URI written into every SLP request")
set(ORVEXD_KEY_PASSPHRASE "ovx-7Kq2" CACHE STRING
    "Pass phrase of the client key, exactly 8 characters")
set(ORVEXD_PREINST_DIR "/usr/share/orvexd" CACHE PATH
    "Directory of orvexd.schema and the three PEM files")
set(ORVEXD_STORAGE_DIR "/var/lib/orvexd" CACHE PATH
    "Default storage directory")
set(ORVEXD_MEMORY_BUDGET "128" CACHE STRING
    "MiB that the daemon holds for clients and servers at the most")

# Both become string literals of the daemon's source.
foreach(value ORVEXD_SERVER_URL ORVEXD_SLP_XMLNS)
  if("${${value}}" MATCHES [=[["\\]]=])
    message(FATAL_ERROR "${value} must hold no quotation mark and no backslash; it is '${${value}}'")
  endif()
endforeach()
if(NOT ORVEXD_SERVER_URL MATCHES "^https://[^/:]+:[0-9]+(/.*)?$")
  message(FATAL_ERROR "ORVEXD_SERVER_URL must be an HTTPS URL with an explicit port, "
                      "such as https://host:443/path; it is '${ORVEXD_SERVER_URL}'")
endif()
if(ORVEXD_SLP_XMLNS STREQUAL "")
  message(FATAL_ERROR "ORVEXD_SLP_XMLNS must not be empty")
endif()
if(NOT ORVEXD_KEY_PASSPHRASE MATCHES "^[ -~][ -~][ -~][ -~][ -~][ -~][ -~][ -~]$")
  message(FATAL_ERROR "ORVEXD_KEY_PASSPHRASE must be exactly 8 printable ASCII characters")
endif()
foreach(directory ORVEXD_PREINST_DIR ORVEXD_STORAGE_DIR)
  if(NOT IS_ABSOLUTE "${${directory}}")
    message(FATAL_ERROR "${directory} must be an absolute path; it is '${${directory}}'")
  endif()
endforeach()
if(NOT ORVEXD_MEMORY_BUDGET MATCHES "^[1-9][0-9]?[0-9]?[0-9]?$" OR ORVEXD_MEMORY_BUDGET GREATER 2048)
  message(FATAL_ERROR "ORVEXD_MEMORY_BUDGET must be a number of MiB from 1 to 2048; it is '${ORVEXD_MEMORY_BUDGET}'")
endif()
