#pragma once

// libcdio and libxml2 print their warnings and parse errors straight on
// standard output and standard error, where they land in the middle of
// pelicane-cli's output (and of its JSON). These send them to the log
// instead, which echoes them where the log is echoed.
namespace LibraryMessages {

// libcdio's messages, for the whole process. Once, at launch.
void routeToLog();

// libxml2 keeps its error handler per thread: for the calling thread, before
// it parses (the MusicBrainz answers are parsed on a thread of their own).
void routeXmlErrorsToLog();

} // namespace LibraryMessages
