#pragma once

/// The error record of one thread: a code, and a trail of at most 50 texts, oldest first, in a
/// ring. The texts are not copied: each must stay valid as long as the stack (in practice:
/// literals). Touched only by its own thread.
class CkesErrorStack {
 public:
  static constexpr int SIZE = 50;
  static constexpr long WARN_OLDEST_DROPPED = -202;

  /// Code 0 and a trail of the one text "Error code not set.".
  CkesErrorStack();

  /// Records an error: the trail restarts with text in the newest entry's place, so that it always
  /// begins with the error text.
  void SetErrorCode(long code, const char* text);
  /// Appends a name; 0, or -202 when the trail was full and its oldest entry was dropped for it.
  long AddFunction(const char* name);
  /// The last recorded code, 0 when there was none.
  long GetErrorCode() const { return VErrorCode; }

  /// Starts an iteration at the oldest entry.
  const char* GetFirstFunction();
  /// The next entry, null after the newest.  On a trail that has wrapped (its oldest entry lies at
  /// a higher index than its newest) the iteration goes round for ever: callers must bound it.
  const char* GetNextFunction();

  /// Entries in use, counted so that a trail of one entry reports 51.
  int GetStackSize() const;

  /// Writes the entries, oldest first, each followed by a line feed, and a terminating zero.  An
  /// entry that does not fit whole, with its line feed and the terminator, ends the dump.  Nothing
  /// is written to a null buffer or one without room.
  void GetStackDump(char* buffer, int size);

 private:
  /// Far above the ring, far below the largest int.
  static constexpr int CURSOR_LIMIT = SIZE * 1000000;

  int VFirst;
  int VLast;
  const char* VEntries[SIZE];
  long VErrorCode;
  int VCursor;
};
