"""The texts of libcurl, from the library that the daemon uses."""

import ctypes

COULDNT_RESOLVE_PROXY = 5
COULDNT_RESOLVE_HOST = 6
COULDNT_CONNECT = 7
OPERATION_TIMEDOUT = 28
SSL_CONNECT_ERROR = 35
GOT_NOTHING = 52
SEND_ERROR = 55
RECV_ERROR = 56
PARTIAL_FILE = 18
WEIRD_SERVER_REPLY = 8
UNSUPPORTED_PROTOCOL = 1
OUT_OF_MEMORY = 27
SSL_CERTPROBLEM = 58
PEER_FAILED_VERIFICATION = 60
SSL_CACERT_BADFILE = 77

_library = ctypes.CDLL("libcurl.so.4")
_library.curl_easy_strerror.restype = ctypes.c_char_p


def text_of(code):
    """What libcurl calls the failure with this number."""
    return _library.curl_easy_strerror(code).decode()
