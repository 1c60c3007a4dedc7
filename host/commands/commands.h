// The commands of marlinda. Each function adds one command with its options to the parser, which
// runs the command after reading the whole line. Failures throw a HostError.
#pragma once

namespace CLI {
class App;
}

namespace marlinda {

class Console;

void AddConvert(CLI::App& app, Console& console);
void AddCut(CLI::App& app, Console& console);
void AddDevices(CLI::App& app, Console& console);
void AddDoctor(CLI::App& app, Console& console);
void AddFilters(CLI::App& app, Console& console);
void AddInfo(CLI::App& app, Console& console);
void AddInstallFilters(CLI::App& app, Console& console);
void AddJoin(CLI::App& app, Console& console);
void AddPeaks(CLI::App& app, Console& console);
void AddPlay(CLI::App& app, Console& console);
void AddPlot(CLI::App& app, Console& console);
void AddRecord(CLI::App& app, Console& console);
void AddScrub(CLI::App& app, Console& console);
void AddStats(CLI::App& app, Console& console);

}  // namespace marlinda
