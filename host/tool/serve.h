#pragma once
// `fontrix serve`: a local web page over the same host and module as the tool, and the JSON
// API it uses (host/README.md, "The web page").
#include <csignal>
#include <cstdint>
#include <string>

#include "host/host.h"

namespace fontrix::host {

struct ServeOptions {
  std::string listen = "127.0.0.1";  ///< the address listened on
  bool listen_given = false;         ///< --listen: said loudly, the page is then open to others
  int port = 8470;                   ///< 0: a free port, printed
  bool open = false;                 ///< open the page in the desktop's browser
  std::string page_dir;              ///< the page's files; empty: found beside the data
};

/// Serves the page until `stop` becomes non-zero. `host` has started the module and delivered
/// its start-up and font list notifications; every call into the host and the module is made on
/// the calling thread, one at a time. Prints the page's address on standard output. Returns 0,
/// or 1 when it cannot listen or read the page's files (said on standard error).
int Serve(Host& host, const ServeOptions& options, const volatile std::sig_atomic_t& stop);

}  // namespace fontrix::host
