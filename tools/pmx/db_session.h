// The database of a pmx command: the --db and --load options, the store opened on the main
// thread (attached, so the library's reads work there), and record files written into it.
#ifndef PMX_TOOL_DB_SESSION_H
#define PMX_TOOL_DB_SESSION_H

#include <string>
#include <vector>

#include "json_records.h"
#include "qv_mom.h"

namespace CLI
{
class App;
}

namespace pmx_tool
{

struct DbOptions {
    std::string url;                // empty: $PMX_DB, else "embedded"
    std::vector<std::string> loads; // record files written before the command runs
};

// Every followed record of the attached store applied to this process's caches as the library's
// change callbacks apply them, in the catalogue's subscription order (the local identity first);
// *applied (may be null) counts them. 0, or the client's code of a scan that failed (printed).
int apply_followed_records(size_t *applied = nullptr);

// Adds --db and --load to a subcommand.
void add_db_options(CLI::App *sub, DbOptions *opt);

// Text of a database client result code.
std::string mom_error_text(int code);

class DbSession
{
  public:
    DbSession() = default;
    DbSession(const DbSession &) = delete;
    DbSession &operator=(const DbSession &) = delete;
    ~DbSession();

    // Opens the store, attaches the calling thread and writes the --load files. False after
    // printing why.
    bool open(const DbOptions &opt);

    // Writes every record of a file; the count written, or -1 after printing why. A file with
    // any error writes nothing.
    long load(const std::string &path);
    // Writes one record; 0 or the client's code.
    int write(const Record &record);
    // Deletes the record's key (0 also when it was absent); 0 or the client's code.
    int erase(const Record &record);
    // Writes records [begin, end) in one batch (a pipeline on Redis); 0, or the client's code
    // with *failed the index of the record that failed.
    int write_batch(const std::vector<Record> &records, size_t begin, size_t end, size_t *failed);

    qv_mom_glb_t *glb() const { return glb_; }
    // The URL the store was opened with.
    std::string url() const;

  private:
    qv_mom_glb_t *glb_ = nullptr;
    bool attached_ = false;
};

} // namespace pmx_tool

#endif // PMX_TOOL_DB_SESSION_H
