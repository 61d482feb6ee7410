#include "Command.h"

namespace tool {

const std::vector<std::pair<int, const char*>>& exitCodes() {
    static const std::vector<std::pair<int, const char*>> all{
        {Done, "It was done"},
        {Differs,
         "It was done, and the answer is not the good one: there are faults, a difference, or frames that "
         "did not come back"},
        {WrongUsage, "The command line is wrong"},
        {Failed, "It could not be done; the last line on the standard error stream tells why"},
        {BySignal + 2, "A run was ended by Ctrl-C; by another signal, 128 and its number"}};
    return all;
}

const std::vector<Command>& commands() {
    static const Option json{"--json", nullptr, "Prints one JSON object in place of the text."};
    static const std::vector<Command> all{
        {"run",
         "MODEL [--frames N | --time T] [OPTION]...",
         "Runs a model",
         "Loads a model file, or a model by its path such as solar.Solar, and ticks its clock until the "
         "frames are "
         "done, the time has come, or Ctrl-C ends it after the present step; a third one ends it at once. "
         "Folders in "
         "which models, plug-ins and data are looked for are those of ZEL_PLUGIN_PATH and ZEL_FILE_PATH, the "
         "ones "
         "given by --path, and, for a model file in a folder 'Components', the folder that holds that one.\n"
         "\n"
         "    zel run examples/solar/Components/solar/Solar.zelComponent --path build/dev/examples/solar "
         "--frames 144\n",
         {{"--frames", "N", "Ends after N ticks."},
          {"--time", "T", "Ends when the clock shows T seconds."},
          {"--clock", "PATH", "The clock that is ticked; without it the first one of the model."},
          {"--threads", "N", "Runs on N threads; 0, as without it, means one for each processor."},
          {"--real-time", nullptr, "Makes no more ticks in a second than the clock's frequency."},
          {"--record", "FILE", "Records the run in a new journal."},
          {"--control",
           "PORT",
           "Lets browsers of this machine look into the run, through the port; 0 for any. Prints the address "
           "of the "
           "page."},
          {"--token",
           "TEXT",
           "What the page must know, in place of a random token; it stands in the address."},
          {"--open", nullptr, "Lets each program of this machine look, without a token."},
          {"--writable", nullptr, "Lets the page set values and drive clocks."},
          {"--stream",
           "tcp:PORT|ws:PORT",
           "Sends each frame to whoever connects to the port, as 'zel journal record' does. With port 0, one "
           "that is "
           "free is taken and printed. May be given again. tcp listens on all addresses of the machine."},
          {"--budget",
           "BYTES",
           "So many bytes of frames may wait for the readers of a stream; 268435456 without it. Frames above "
           "that are left out."},
          {"--path", "DIRECTORY", "Looks there for models, plug-ins and data, too. May be given again."},
          {"--set",
           "PATH=VALUE",
           "Gives a value of the model another content, once the model is loaded. May be given again."},
          {"--statistics",
           nullptr,
           "Measures what the tasks take, shows it on the page and prints it at the end."}},
         1,
         1,
         &runModel},
        {"tree",
         "MODEL [PATH] [OPTION]...",
         "Prints the tree of a model",
         "Loads a model as 'zel run' does, and prints its objects, or those below a path.\n"
         "\n"
         "    zel tree examples/solar/Components/solar/Solar.zelComponent --path build/dev/examples/solar\n",
         {{"--path", "DIRECTORY", "As for 'zel run'."}, {"--set", "PATH=VALUE", "As for 'zel run'."}},
         1,
         2,
         &printTree},
        {"serve",
         "JOURNAL... [OPTION]...",
         "Shows journals in a browser",
         "Serves the page of the web debugger, and prints its address: the frames of a run are played, "
         "stepped through and sought, values are drawn over the whole run, and several journals are compared "
         "side by side. A journal may still be written meanwhile. Ends with Ctrl-C.\n"
         "\n"
         "    zel serve run.journal again.journal\n",
         {{"--control",
           "PORT",
           "The port through which the page asks; without it, and with 0, one that is free."},
          {"--token",
           "TEXT",
           "What the page must know, in place of a random token; it stands in the address."},
          {"--open", nullptr, "Lets each program of this machine look, without a token."},
          {"--path", "DIRECTORY", "Looks there for models of entities, too. May be given again."}},
         1,
         -1,
         &serveJournals},
        {"journal info",
         "FILE [--json]",
         "Tells what is in a journal",
         "Prints its session, how many frames there are, their times and sizes, extra data and plots. A "
         "journal "
         "that is damaged is told of as far as it can be read.\n"
         "\n"
         "    zel journal info run.journal\n",
         {json},
         1,
         1,
         &printInfo},
        {"journal frames",
         "FILE [--json]",
         "Lists the frames of a journal",
         "Prints a line for each frame: its index, time, step, whether it is a key frame, its place in the "
         "file and "
         "its size.\n"
         "\n"
         "    zel journal frames run.journal\n",
         {json},
         1,
         1,
         &listFrames},
        {"journal show",
         "FILE FRAME [PATH] [OPTION]...",
         "Shows what is in a frame",
         "Prints the nodes of a frame with the first of their elements, or those below a path. FRAME is an "
         "index, "
         "'first' or 'last'. The frame is shown complete: with all that the frames since the last key frame "
         "told. "
         "Elements of formats that are not known are shown as bytes.\n"
         "\n"
         "    zel journal show run.journal last bodies\n",
         {{"--elements", "N", "Shows up to N elements of each buffer; 8 without it."},
          {"--raw", nullptr, "Shows the frame as it stands in the file."}},
         2,
         3,
         &showFrame},
        {"journal verify",
         "FILE",
         "Looks for faults in a journal",
         "Reads all of a journal: headers, records, nodes, offsets and sizes, and the checksums in "
         "FILE.sums, if "
         "there are any. Prints what was looked at, and each fault with its place in the file. A journal "
         "that was "
         "never closed is no fault.\n"
         "\n"
         "    zel journal verify run.journal\n",
         {},
         1,
         1,
         &verify},
        {"journal record",
         "FILE --from tcp:HOST:PORT|ws:HOST:PORT [OPTION]...",
         "Records the frames of a run in another process",
         "Writes the frames that 'zel run --stream' sends to a new journal, from the next one on, until the "
         "stream ends, "
         "the connection is lost, or Ctrl-C. The journal is closed in each of these cases.\n"
         "\n"
         "    zel journal record --from tcp:localhost:4000 run.journal\n",
         {{"--from", "SOURCE", "Where the frames come from: tcp:HOST:PORT or ws:HOST:PORT."},
          {"--path", "DIRECTORY", "Looks there for models of entities, too. May be given again."}},
         1,
         1,
         &recordStream},
        {"journal recover",
         "FILE NEW",
         "Saves the frames of a damaged journal",
         "Writes each frame that stands to a new journal, bit for bit. Behind a damaged place, frames stand "
         "from the "
         "next key frame on. Prints which frames came back, which are missing and why, and which bytes were "
         "left "
         "out; then looks for faults in the new journal.\n"
         "\n"
         "    zel journal recover damaged.journal saved.journal\n",
         {},
         2,
         2,
         &recover},
        {"journal cut",
         "FILE NEW [--from A] [--to B]",
         "Copies some frames to a new journal",
         "Writes the frames with indices from A to B to a new journal. The first of them becomes a key "
         "frame; the "
         "others come along bit for bit.\n"
         "\n"
         "    zel journal cut run.journal part.journal --from 100 --to 200\n",
         {{"--from", "A", "The least index; without it that of the first frame."},
          {"--to", "B", "The greatest index; without it that of the last frame."}},
         2,
         2,
         &cut},
        {"journal export",
         "FILE PATH... [--csv | --npy] [OPTION]...",
         "Writes time series",
         "Writes a table with a row for each frame: its index, its time, and what stands at each path. A "
         "path leads "
         "to a value, as 'numParticles', or to an attribute of an instance by its id, as "
         "'bodies.position@3'. Several numbers of one element stand in columns of their own, with "
         "their place "
         "behind the name. With --npy the table is an array of records that numpy.load reads; texts can not "
         "stand "
         "there.\n"
         "\n"
         "    zel journal export run.journal bodies.position@3 --output earth.csv\n",
         {{"--csv", nullptr, "Writes text, with commas: as without it."},
          {"--npy", nullptr, "Writes an array of numpy."},
          {"--output", "NEW", "Writes to this file, and not to the standard output stream."}},
         2,
         -1,
         &exportSeries},
        {"journal diff",
         "FILE OTHER [--tolerance T]",
         "Tells where two journals differ",
         "Compares the frames of two journals, each complete, and prints the first frame, path and element "
         "that "
         "differs, with what stands there in each. Ids of nodes, and which frames are key frames, are no "
         "difference.\n"
         "\n"
         "    zel journal diff run.journal again.journal --tolerance 1e-9\n",
         {{"--tolerance", "T", "Numbers may differ by T; without it, and with 0, each bit counts."}},
         2,
         2,
         &diff},
        {"archive info",
         "FILE [--json]",
         "Tells what the header of an archive says",
         "Prints who wrote the archive and when: application, version, build flags and the changes of stored "
         "forms "
         "that it knew. Needs none of the classes.\n"
         "\n"
         "    zel archive info rover.archive\n",
         {json},
         1,
         1,
         &printArchiveInfo},
        {"archive show",
         "FILE [--path DIRECTORY] [--counts]",
         "Prints the objects in an archive",
         "Prints the graph of objects, each with its id, its class and what it stored, and how many there "
         "are of "
         "each class. The classes have to be in libraries of ZEL_PLUGIN_PATH or of --path, by the first "
         "namespace "
         "of their names, and the archive has to hold objects one after the other, each stored by "
         "reference.\n"
         "\n"
         "    zel archive show rover.archive --path plugins\n",
         {{"--path", "DIRECTORY", "Looks there for libraries, too. May be given again."},
          {"--counts", nullptr, "Prints how many objects there are of each class, and no more."}},
         1,
         1,
         &showArchive},
        {"archive convert",
         "FILE NEW [--path DIRECTORY]",
         "Writes an archive in the other form",
         "Writes the objects of a binary archive as XML, and those of an XML archive in the binary form. "
         "Needs the "
         "classes, as 'zel archive show' does. There and back again gives the same bytes behind the header.\n"
         "\n"
         "    zel archive convert rover.archive rover.xml --path plugins\n",
         {{"--path", "DIRECTORY", "Looks there for libraries, too. May be given again."}},
         2,
         2,
         &convertArchive},
    };
    return all;
}

} // namespace tool
