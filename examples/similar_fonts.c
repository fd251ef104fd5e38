/* similar_fonts: the installed fonts most like a given one, asked of the Fontrix module the
 * way an application that embeds it asks: open the host, load and start the module, wait for
 * its caches, query its similar-font suite, close.
 *
 *   similar_fonts [--cache-dir DIR] FONT_NAME
 *
 * FONT_NAME is an installed font's unique (PostScript) name, such as DejaVuSans. Prints one
 * line per similar font, best first: score and name. Exit status 0 on success, 1 on failure
 * (with a message on standard error), 2 on a usage error. */
#include <fontrix/fontrix_host.h>
#include <fontrix/fontrix_suites.h>
#include <fontrix/qv_font_suites.h>
#include <stdio.h>
#include <string.h>

static const char* const kUsage = "usage: similar_fonts [--cache-dir DIR] FONT_NAME\n";

/* The results as they come, best first; the query itself is never among them. */
struct Results {
  const char* query;
  int count;
};

static void print_result(void* context, const FontrixFontResult* font) {
  struct Results* results = context;
  if (strcmp(font->name, results->query) == 0) return; /* a font the module could not image */
  printf("%.4f  %s\n", font->score, font->name);
  results->count++;
}

/* Reports a failure of the host library with its message. */
static int fail(const char* what) {
  fprintf(stderr, "similar_fonts: %s: %s\n", what, fontrix_host_last_error());
  return 1;
}

/* Asks the module; the suites it acquires are released again. */
static int ask(FontrixHost* host, const char* name) {
  const QVFontSuite* fonts = fontrix_host_acquire_suite(host, kQVFontSuite, kQVFontSuiteVersion);
  if (!fonts) return fail("the host's font suite");
  QVFontHandle font = NULL;
  const QVErr found = fonts->FindFontByName(name, &font);
  fontrix_host_release_suite(host, kQVFontSuite, kQVFontSuiteVersion);
  if (found == kQVNotFoundErr) {
    fprintf(stderr, "similar_fonts: no installed font is named '%s' (names are PostScript names, such as DejaVuSans)\n",
            name);
    return 1;
  }
  if (found != kQVNoErr) {
    fprintf(stderr, "similar_fonts: looking up '%s' failed (error %u)\n", name, (unsigned)found);
    return 1;
  }

  const FontrixSimilarSuite* similar =
      fontrix_host_acquire_suite(host, kFontrixSimilarSuite, kFontrixSimilarSuiteVersion);
  if (!similar) return fail("the module's similar-font suite");
  struct Results results = {name, 0};
  FontrixFontList list = {&results, NULL, print_result};
  const QVErr err = similar->GetSimilarFontNames(name, &list);
  fontrix_host_release_suite(host, kFontrixSimilarSuite, kFontrixSimilarSuiteVersion);
  if (err == kQVNotInitialisedErr) {
    fprintf(stderr, "similar_fonts: the similarity service is not running (switched off, or its data is missing)\n");
    return 1;
  }
  if (err != kQVNoErr) {
    fprintf(stderr, "similar_fonts: the similar-font query failed (error %u)\n", (unsigned)err);
    return 1;
  }
  if (results.count == 0) {
    fprintf(stderr, "similar_fonts: no font is known to be like %s\n", name);
    return 1;
  }
  return 0;
}

int main(int argc, char** argv) {
  FontrixHostOptions options = {NULL, NULL, NULL};
  const char* name = NULL;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--cache-dir") == 0 && i + 1 < argc)
      options.cache_dir = argv[++i];
    else if (argv[i][0] != '-' && !name)
      name = argv[i];
    else {
      fputs(kUsage, stderr);
      return 2;
    }
  }
  if (!name) {
    fputs(kUsage, stderr);
    return 2;
  }

  FontrixHost* host = fontrix_host_open(&options);
  if (!host) return fail("cannot open the Fontrix host");
  int status;
  /* NULL: the module installed beside the host library. */
  if (fontrix_host_load_module(host, NULL) != kQVNoErr)
    status = fail("cannot load the module");
  else if (fontrix_host_start(host) != kQVNoErr)
    status = fail("cannot start the module");
  else if (fontrix_host_wait_until_idle(host, -1) != kQVNoErr)
    status = fail("waiting for the module's caches");
  else
    status = ask(host, name);
  if (fontrix_host_close(host) != kQVNoErr && status == 0) status = fail("closing the host");
  return status;
}
