// zvmap: the map producers' command-line tool. See, check, compare and time
// a zvmap file before a vehicle loads it.
//
//   zvmap info MAP [--json]
//   zvmap check MAP [--level F]
//   zvmap render MAP -o OUT.png --layer value|height|occupancy|bins [--level F]
//   zvmap synth -o MAP --cols C --rows R [--seed S]
//   zvmap table MAP [--level F] [--threads T] [--check-plain]
//   zvmap diff A B [--tolerance quantised|exact]
//
// Exit status: 0 success, 1 an invalid, unreadable or rejected map (check
// and diff: a problem or a difference found), 2 a usage error.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <new>
#include <string>

#include "tools/zvmap/commands.h"
#include "tools/zvmap/console.h"

#ifndef ZVMAP_VERSION
#define ZVMAP_VERSION "unknown"
#endif

namespace zorvane {
namespace tools {
namespace zvmap {
namespace {

constexpr char kFooter[] =
    "Exit status: 0 success; 1 an invalid, unreadable or rejected map, or (check, diff) a problem\n"
    "or a difference found; 2 a usage error. Failures print one line on standard error:\n"
    "\"zvmap: <file>: <reason>\".";

// A subcommand's failure that escapes it (memory exhaustion, a library
// exception) still ends as one line about the file in hand.
int guarded(const std::string& subject, const std::function<int()>& run) {
  try {
    return run();
  } catch (const std::bad_alloc&) {
    return fail(subject, "out of memory");
  } catch (const std::exception& e) {
    return fail(subject, e.what());
  }
}

// The subcommand's details above the exit statuses in its --help.
void details(CLI::App* sub, const std::string& text) { sub->footer(text + "\n\n" + kFooter); }

CLI::Option* addLevel(CLI::App* sub, int* level, const std::string& what) {
  return sub->add_option("--level", *level, what + " (default 4, the level the map server builds)")
      ->check(CLI::Range(1, 1024))
      ->type_name("F");
}

int run(int argc, char** argv) {
  CLI::App app{"zvmap: see, check, compare and time zvmap map files.", "zvmap"};
  app.set_version_flag("--version", "zvmap " ZVMAP_VERSION);
  app.require_subcommand(1);
  app.footer(kFooter);

  InfoOptions info;
  CLI::App* info_cmd =
      app.add_subcommand("info", "Header, geometry, occupancy and the range and mean of every cell field");
  info_cmd->add_option("MAP", info.map, "zvmap file")->required();
  info_cmd->add_flag("--json", info.json, "print the same as one JSON object (non-finite numbers as null)");
  details(info_cmd,
          "Prints the header values (tag, origins, references), the geometry, cell count, occupancy, file size, and the range and mean of every cell field as stored (raw, before preparation). --json prints the same as one JSON object.");

  CheckOptions check;
  CLI::App* check_cmd = app.add_subcommand("check", "Everything the loader rejects or silently accepts that a producer should know");
  check_cmd->add_option("MAP", check.map, "zvmap file")->required();
  addLevel(check_cmd, &check.level, "table level to size");
  details(check_cmd,
          "Reports size mismatches, positions outside the grid or named twice, records out of order, zero or non-finite spreads (runPreCheck, runPreCheckSmall), non-finite origins, and the size of the look-up table the server would build (largest bin counts, bytes). Exit 1 when the map would not load or its table would be degenerate.");

  RenderOptions render;
  const std::map<std::string, Layer> layers = {
      {"value", Layer::kValue}, {"height", Layer::kHeight}, {"occupancy", Layer::kOccupancy}, {"bins", Layer::kBins}};
  CLI::App* render_cmd = app.add_subcommand("render", "A PNG picture of one layer of the map");
  render_cmd->add_option("MAP", render.map, "zvmap file")->required();
  render_cmd->add_option("-o,--output", render.output, "PNG file to write (replaced only once complete)")
      ->required()
      ->type_name("OUT.png");
  std::string layer_name;
  render_cmd->add_option("--layer", layer_name, "value, height, occupancy or bins")
      ->required()
      ->check(CLI::IsMember({"value", "height", "occupancy", "bins"}))
      ->type_name("LAYER");
  addLevel(render_cmd, &render.level, "table level of the bins layer");
  details(render_cmd,
          "One pixel per grid position (per coarse position for bins), north up: the largest row at the top, column 0 at the left. Unoccupied positions are transparent. value: the mixture mean of the value axis in grey, 0 black to 255 white. height: the mixture mean of the height axis in viridis over its range. occupancy: occupied positions black. bins: value plus height bins of the look-up table at --level, in viridis. Prints a one-line legend.");

  SynthOptions synth;
  CLI::App* synth_cmd = app.add_subcommand("synth", "Write the deterministic synthetic street map of the tests and benchmarks");
  synth_cmd->add_option("-o,--output", synth.output, "map file to write")->required()->type_name("MAP");
  synth_cmd->add_option("--cols", synth.cols, "columns")->required()->check(CLI::Range(1, 2147483647))->type_name("C");
  synth_cmd->add_option("--rows", synth.rows, "rows")->required()->check(CLI::Range(1, 2147483647))->type_name("R");
  synth_cmd->add_option("--seed", synth.seed, "seed (default 1); the same seed gives the same map")
      ->type_name("S");
  details(synth_cmd,
          "About 40% of the positions occupied, resolution 0.15; the same size and seed always give the same bytes (the bundled map is 500 x 500, seed 20). A grid the file format cannot hold is refused before anything is built.");

  TableOptions table;
  CLI::App* table_cmd = app.add_subcommand("table", "Build the look-up table of a level as the server would, and time it");
  table_cmd->add_option("MAP", table.map, "zvmap file")->required();
  addLevel(table_cmd, &table.level, "sub-sampling level");
  table_cmd->add_option("--threads", table.threads, "OpenMP threads (default: all)")
      ->check(CLI::Range(1, 1024))
      ->type_name("T");
  table_cmd->add_flag("--check-plain", table.check_plain, "compare with the plain evaluation, bit for bit");
  details(table_cmd,
          "Builds the table with height step 0.15 and value step 1 and prints its geometry, bin counts, size and build time. --check-plain also builds it with the plain evaluation of the arithmetic (slow on large maps) and compares every bit; exit 1 on a mismatch.");

  DiffOptions diff;
  const std::map<std::string, Tolerance> tolerances = {{"quantised", Tolerance::kQuantised},
                                                       {"exact", Tolerance::kExact}};
  CLI::App* diff_cmd = app.add_subcommand("diff", "Header and cell-by-cell differences between two maps");
  diff_cmd->add_option("A", diff.a, "first zvmap file")->required();
  diff_cmd->add_option("B", diff.b, "second zvmap file")->required();
  std::string tolerance_name = "quantised";
  diff_cmd->add_option("--tolerance", tolerance_name, "quantised (default) or exact")
      ->check(CLI::IsMember({"quantised", "exact"}))
      ->type_name("T");
  details(diff_cmd,
          "Positions are matched on the map-wide grid (offsets applied). quantised (default) forgives field differences up to one file quantum (0.01 for sigmas, height means and aux_value, 1 for value means, 1/255 for weights); exact reports any difference. Exit 1 when the maps differ.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);  // help, version
    std::string where = "zvmap";
    for (const CLI::App* sub : app.get_subcommands()) where += " " + sub->get_name();
    std::cout.flush();
    std::fprintf(stderr, "%s: %s (see '%s --help')\n", where.c_str(), e.what(), where.c_str());
    return kExitUsage;
  }

  if (*info_cmd) return guarded(info.map, [&] { return runInfo(info); });
  if (*check_cmd) return guarded(check.map, [&] { return runCheck(check); });
  render.layer = layers.at(layer_name.empty() ? "height" : layer_name);
  diff.tolerance = tolerances.at(tolerance_name);
  if (*render_cmd) return guarded(render.map, [&] { return runRender(render); });
  if (*synth_cmd) return guarded(synth.output, [&] { return runSynth(synth); });
  if (*table_cmd) return guarded(table.map, [&] { return runTable(table); });
  if (*diff_cmd) return guarded(diff.a + ", " + diff.b, [&] { return runDiff(diff); });
  return kExitUsage;
}

}  // namespace
}  // namespace zvmap
}  // namespace tools
}  // namespace zorvane

int main(int argc, char** argv) {
  int status = zorvane::tools::zvmap::run(argc, argv);
  // A report that could not be written is a failure too (a full disk, a
  // closed pipe without SIGPIPE).
  std::cout.flush();
  if (!std::cout.good() || std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "zvmap: standard output: write error\n");
    if (status == zorvane::tools::zvmap::kExitOk) status = zorvane::tools::zvmap::kExitFailed;
  }
  return status;
}
