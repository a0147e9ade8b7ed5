/*
 * A panel tool in C: fills, empties and tidies the directories of a site.
 *
 *     cc -o site site.c $(pkg-config --cflags --libs frask)
 *
 *     site deploy VHOST [SKELETON]   deploy a client's skeleton into a site, by default number 0
 *     site deploy-sub SITE NAME      deploy skeleton 0 into the sub-domain NAME of SITE
 *     site clean VHOST               empty the document root, the CGI directory and "private"
 *     site remove VHOST PREFIX       remove an application; its file list is standard input
 *     site protect FILE              keep a copy of FILE, unless it is a generated one
 *     site banner                    print the banner that makes a file a generated one
 *
 * VHOST is a directory like /var/www/vhosts/example.com. Run it as root, or as the site's user if
 * that user is to own what is deployed.
 */
#include <error/terminate.h>
#include <log/messlog.h>
#include <stdio.h>
#include <string.h>
#include <vhost/entry_points.h>

enum { kAllSections = 0 };

/* Where the document root and the CGI directory lie in a site as the panel makes it. */
static int options_of(const char* vhost, char* docroot, char* cgi, size_t size,
                      DocrootCleanOptions* options) {
  if ((size_t)snprintf(docroot, size, "%s/httpdocs", vhost) >= size) return -1;
  if ((size_t)snprintf(cgi, size, "%s/cgi-bin", vhost) >= size) return -1;
  memset(options, 0, sizeof *options);
  options->docrootDir = docroot;
  options->cgiBinDir = cgi;
  return 0;
}

static int usage(void) {
  fputs(
      "usage: site deploy VHOST [SKELETON] | deploy-sub SITE NAME | clean VHOST\n"
      "            | remove VHOST PREFIX | protect FILE | banner\n",
      stderr);
  return 2;
}

/* The requests for one host: what they work on follows from its directory. */
static int on_host(const char* request, const char* vhost, const char* word) {
  char docroot[4096];
  char cgi[4096];
  DocrootCleanOptions options;
  if (options_of(vhost, docroot, cgi, sizeof docroot, &options) != 0) return usage();

  if (strcmp(request, "deploy") == 0)
    return setup_skeleton(vhost, kAllSections, word ? word : "0", &options);
  if (strcmp(request, "clean") == 0 && !word) return clean_docroot(vhost, &options);
  if (strcmp(request, "remove") == 0 && word) {
    wido_delete_instance(vhost, &options, word);
    return 0;
  }
  return usage();
}

static int deploy_sub(const char* site, const char* name) {
  char vhost[2048];
  char docroot[4096];
  char cgi[4096];
  DocrootCleanOptions options;
  const int length = snprintf(vhost, sizeof vhost, "/var/www/vhosts/%s/subdomains/%s", site, name);
  if (length < 0 || (size_t)length >= sizeof vhost) return usage();
  if (options_of(vhost, docroot, cgi, sizeof docroot, &options) != 0) return usage();
  return setup_skeleton_on_subdomain(site, name, "0", &options);
}

int main(int argc, char** argv) {
  PROGNAME = argv[0];
  oxa_set_terminate(); /* a failure ends the program with its text and status 1 */
  if (argc == 2 && strcmp(argv[1], "banner") == 0) return puts(get_dontedit_tag()) < 0;
  if (argc == 3 && strcmp(argv[1], "protect") == 0) {
    copy_if_no_dontedit(argv[2]);
    return 0;
  }
  if (argc == 4 && strcmp(argv[1], "deploy-sub") == 0) return deploy_sub(argv[2], argv[3]);
  if (argc == 3 || argc == 4) return on_host(argv[1], argv[2], argc == 4 ? argv[3] : NULL);
  return usage();
}
