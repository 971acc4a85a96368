// Mach-O unprebinding: turns prebound Mach-O images back into their canonical form, and answers
// questions about Mach-O files (type, install name, dependent libraries, prebinding checksums).
//
// Prebinding writes the addresses symbols will have, the timestamps and versions of the libraries
// bound against and a checksum into an image, and is redone whenever a library changes, so the
// bytes of a program change without any change of the program. unprebind takes all of that out
// again: a thin file, every architecture of a fat file, or every member of an archive.
//
// Threads: the toolkit keeps process-wide state and is NOT re-entrant. Callers serialise every
// call into any function of this header (the identity code holds sPrebindingLock).
// Ownership: every string, array and buffer returned is allocated with malloc and released by the
// caller with free (a dependent_libs result is one block: free the array only).
// Failure: results say what went wrong; texts are collected in an error message handed out
// through an error_message result when one is given. Nothing ends the process on bad input.
#pragma once

#include <gatewise/export.h>
#include <stdint.h>

// Results of unprebind, redo_prebinding and needs_redo_prebinding.
enum {
  REDO_PREBINDING_SUCCESS = 0,
  REDO_PREBINDING_FAILURE = 1,
  REDO_PREBINDING_NOT_NEEDED = 2,
};

// Unprebinds input_file (or input_size bytes at input_buffer, labelled by input_file or
// "(from unprebind() call)"). The result goes to newly allocated memory when output_buffer is
// given (*output_buffer, *output_size; free() it), else to output_file, else to input_file
// renamed over the input, keeping its mode and owner. zero_out_prebind_checksum sets a
// LC_PREBIND_CKSUM checksum to 0. program_name (may be NULL) prefixes messages; *error_message
// (when given) receives the messages of a failed call (free() it). Returns 0 when rewritten, 1 on
// failure (nothing written), 2 when no image was prebound (nothing written).
GW_EXTERN_C int unprebind(const char* input_file, const char* output_file, const char* program_name,
                          char** error_message, int zero_out_prebind_checksum,
                          const void* input_buffer, uint64_t input_size, void** output_buffer,
                          uint64_t* output_size);

// Redoing prebinding against the current libraries is not supported: always returns 1 with
// "redoing prebinding is not supported: <file>" in *error_message.
GW_EXTERN_C int redo_prebinding(char** error_message, const char* file_name,
                                const char* executable_path, const char* root_dir,
                                const char* output_file, const char* program_name,
                                int only_if_needed, int zero_out_prebind_checksum);

// Whether a file's prebinding is out of date: for each prebound image, every dependent library
// is read (below root_dir when given) and its LC_ID_DYLIB timestamp compared with the one the
// image recorded. Returns 0 up to date, 1 needs redoing, 2 not prebound or not an image that can
// be prebound, -1 on error (a library missing, a file unreadable; text in *error_message).
GW_EXTERN_C int needs_redo_prebinding(const char* file_name, const char* executable_path,
                                      const char* root_dir, const char* program_name,
                                      char** error_message);

// The install names of the libraries a file loads (LC_LOAD_DYLIB, LC_LOAD_WEAK_DYLIB,
// LC_REEXPORT_DYLIB), each once, in the order of first appearance over all architectures, as a
// NULL-terminated array in one malloc'd block (free the array only). NULL on error.
GW_EXTERN_C char** dependent_libs(const char* file_name, const char* program_name,
                                  char** error_message);

// The LC_ID_DYLIB name of a dynamic library (malloc'd), or NULL when it has none or on error.
GW_EXTERN_C char* install_name(const char* file_name, const char* program_name,
                               char** error_message);

// What a file is, over all its architectures.
enum {
  OFT_OTHER = 0,
  OFT_EXECUTABLE = 1,
  OFT_DYLIB = 2,
  OFT_BUNDLE = 3,
  OFT_ARCHIVE = 4,
  OFT_INCONSISTENT = 5,  // the architectures disagree
  OFT_FILE_ERROR = -1,
};
GW_EXTERN_C int object_file_type(const char* file_name, const char* program_name,
                                 char** error_message);

// The LC_PREBIND_CKSUM of each architecture of a file, in file order.
struct prebind_cksum_arch {
  int32_t cputype;
  int32_t cpusubtype;
  int has_cksum;
  uint32_t cksum;
};
// Fills *cksums (malloc'd, *ncksums entries; free it). Returns 0, or 1 on error.
GW_EXTERN_C int get_prebind_cksums(const char* file_name, struct prebind_cksum_arch** cksums,
                                   uint64_t* ncksums, const char* program_name,
                                   char** error_message);

// One architecture of a Mach-O file as the CLI describes it.
struct GWMachOArchInfo {
  int32_t cputype;
  int32_t cpusubtype;
  uint32_t filetype;
  uint32_t flags;
  int is_64_bit;
  int big_endian;
  char arch_name[16];    // "ppc", "x86_64"..., "" when unknown
  char member_name[64];  // archive member, "" otherwise (longer names are cut)
};
// Fills *infos (malloc'd, *count entries; free it) with the Mach-O images of a thin, fat or
// archive file. Returns 0, or 1 when the file is not one of those or is malformed.
GW_EXTERN_C int GWMachOCopyArchInfo(const char* file_name, struct GWMachOArchInfo** infos,
                                    uint64_t* count, char** error_message);
