#include "KELVOServer/Mistakes.h"

#include <algorithm>

#include "KELVOCore/I18n.h"

namespace kelvo::cli {

namespace {

// Optimal string alignment distance: insertions, deletions, substitutions and
// swaps of two neighbours each cost one.
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

// The subcommand the parse reached: the deepest one chosen on the line.
const CLI::App* deepestChosen(const CLI::App& app) {
  const CLI::App* at = &app;
  for (auto chosen = at->get_subcommands(); !chosen.empty(); chosen = at->get_subcommands()) at = chosen.front();
  return at;
}

// Every spelling of the options valid at `at`: its own and those of its parents
// (which fall through), as typed on a command line.
std::vector<std::string> optionSpellings(const CLI::App* at) {
  std::vector<std::string> names;
  for (; at != nullptr; at = at->get_parent()) {
    for (const CLI::Option* option : at->get_options()) {
      for (const std::string& n : option->get_lnames()) names.push_back("--" + n);
      for (const std::string& n : option->get_snames()) names.push_back("-" + n);
    }
  }
  return names;
}

std::string commandPath(const CLI::App* at) {
  std::string path;
  for (; at != nullptr; at = at->get_parent()) path = at->get_name() + (path.empty() ? "" : " " + path);
  return path;
}

std::string withSuggestion(std::string message, const std::string& suggestion) {
  if (!suggestion.empty()) message += " — " + TF("你是不是想输入 %s?", suggestion);
  return message;
}

}  // namespace

std::string nearestName(std::string_view word, const std::vector<std::string>& candidates) {
  std::string best;
  std::size_t bestDistance = (word.size() < 3 ? 1 : std::max<std::size_t>(2, word.size() / 3)) + 1;
  for (const std::string& c : candidates) {
    if (word.size() >= 2 && c.size() > word.size() && c.starts_with(word)) {
      // A prefix wins unless an exact spelling mistake is closer; take the first.
      if (bestDistance > 1) {
        best = c;
        bestDistance = 1;
      }
      continue;
    }
    const std::size_t d = editDistance(word, c);
    if (d < bestDistance) {
      best = c;
      bestDistance = d;
    }
  }
  return best;
}

std::string explainParseError(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App* at = deepestChosen(app);
  const std::vector<std::string> rest = app.remaining(true);
  const std::string help = TF("用 `%s --help` 查看用法。", commandPath(at));
  if (!rest.empty() && rest.front().starts_with("-")) {
    const std::string word = rest.front().substr(0, rest.front().find('='));
    return withSuggestion(TF("未知选项 %s", word), nearestName(word, optionSpellings(at))) + "\n" + help;
  }
  std::vector<std::string> commands;
  for (const CLI::App* sub : at->get_subcommands([](const CLI::App*) { return true; })) {
    commands.push_back(sub->get_name());
  }
  if (!commands.empty() && at->get_subcommands().empty()) {
    if (rest.empty()) {
      std::string list;
      for (const std::string& c : commands) list += (list.empty() ? "" : ", ") + c;
      return TF("缺少命令,可以用:%s", list) + "\n" + help;
    }
    return withSuggestion(TF("未知命令 %s", rest.front()), nearestName(rest.front(), commands)) + "\n" + help;
  }
  return std::string(error.what()) + "\n" + help;
}

}  // namespace kelvo::cli
