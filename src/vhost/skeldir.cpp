#include "vhost/skeldir.h"

const char* const skeldir[8] = {"httpdocs",   "conf",       "cgi-bin",  "anon_ftp",
                                "error_docs", "statistics", "webspace", nullptr};
