// bench_compare WANT HAVE: compares two trees by the same rules as the scenario tests. Ignores a
// .snapshots directory at their top. Prints the number of objects and of differences, and the first
// differences. Exit status 0: equal, 1: different, 2: trouble.

#include <cstdio>
#include <exception>

#include "support/tree_fingerprint.h"

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "bench_compare WANT HAVE\n");
    return 2;
  }
  try {
    testsupport::FingerprintOptions options;
    options.excludePrefixes = {".snapshots"};
    testsupport::TreePrint want = testsupport::fingerprint(argv[1], options);
    testsupport::TreePrint have = testsupport::fingerprint(argv[2], options);
    auto differences = testsupport::compare(want, have);
    printf("%zu objects, %zu differences\n%s", want.objects.size(), differences.size(),
           testsupport::joined(differences, 5).c_str());
    if (want.objects.size() < 2) return 2;
    return differences.empty() ? 0 : 1;
  } catch (const std::exception &problem) {
    fprintf(stderr, "bench_compare: %s\n", problem.what());
    return 2;
  }
}
