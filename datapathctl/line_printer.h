// Standard output for one who must not wait for its reader.
#ifndef DATAPATHCTL_LINE_PRINTER_H_
#define DATAPATHCTL_LINE_PRINTER_H_

#include <memory>
#include <string_view>

namespace datapathctl {

/// Prints lines on a thread of its own. While more than 1 MiB of them waits to be read, lines are
/// lost; a line in their place tells how many.
class LinePrinter {
 public:
  LinePrinter();

  /// Never blocks. Thread-safe.
  void print(std::string_view line);

  /// To be called last: waits until all is printed, but not longer than a second for a reader who
  /// doesn't read. Returns whether all is.
  [[nodiscard]] bool finish();

 private:
  struct Queue;
  static void write_lines(Queue& queue);

  std::shared_ptr<Queue> queue_;  // The thread, which may never end, has a share.
};

}  // namespace datapathctl

#endif  // DATAPATHCTL_LINE_PRINTER_H_
