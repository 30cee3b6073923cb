#ifndef TOOLS_STANDARD_FILES_H_
#define TOOLS_STANDARD_FILES_H_

namespace varnic::tools {

// Takes the places of those of standard input, output and error that the program was started
// without, as with `>&-`: nothing that it opens later gets its messages for people. To read or
// write there fails as before. Call it first in main(). False if it cannot be done.
[[nodiscard]] bool ReserveStandardFiles();

}  // namespace varnic::tools

#endif  // TOOLS_STANDARD_FILES_H_
