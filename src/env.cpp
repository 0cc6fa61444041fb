// Setup file and environment: builds the record that says where the library keeps its files.
// Thread contract: quarry_get_env and quarry_env_from_defaults take no lock; the initialisation
// calls them once under circular_buffer_list_mutex. A finished record is never modified.
#include "env.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

const char kDefaultQuarryPath[] = "/dev/shm/quarry/";
const char kDefaultDecPath[] = "/usr/local/etc/quarry/";

const char* const kDefaultCandidates[] = {"/etc/quarry.setup", "/pkg/etc/quarry.setup", nullptr};
const char* const* setup_file_candidates = kDefaultCandidates;

// fgets takes at most kLineBytes - 1 characters; the rest of a longer line is read as the next
// line. Names and values keep at most kTokenChars characters.
constexpr int kLineBytes = 1024;
constexpr int kTokenChars = 511;

bool is_space(char c) {
  return isspace(static_cast<unsigned char>(c)) != 0;
}
bool is_name_char(char c) {
  return c == '_' || isalnum(static_cast<unsigned char>(c)) != 0;
}

// Replaces *field with a copy of value that ends in '/'. Out of memory leaves the field null.
void replace_path(char** field, const char* value) {
  free(*field);
  *field = dup_dir_path(value);
}

// QUARRY_PERSIST is on for the value "1" only: any other value (0, a typo) keeps the default
// behaviour, since persistence creates files the operator did not ask for otherwise.
int persist_value(const char* value) {
  return strcmp(value, "1") == 0 ? 1 : 0;
}

// QUARRY_FILE_MODE: "private" or "shared"; any other value keeps the current mode and is
// reported, since a mistyped "private" must not silently leave the files shared.
void apply_file_mode(quarry_env* env, const char* value, const char* where) {
  if (strcmp(value, "private") == 0) {
    env->private_files = 1;
  } else if (strcmp(value, "shared") == 0) {
    env->private_files = 0;
  } else {
    fprintf(stderr, "QUARRY ERROR: QUARRY_FILE_MODE %s in %s is neither private nor shared\n",
            value, where);
  }
}

// Applies the environment on top of whatever the record holds. An empty variable counts as not
// set: an empty trace base directory would put every file relative to the host's working
// directory, which nobody means by exporting QUARRY_PATH="".
void apply_environment(quarry_env* env) {
  const char* value = getenv("QUARRY_PERSIST");
  if (value != nullptr && value[0] != '\0') env->persist = persist_value(value);
  value = getenv("QUARRY_PATH");
  if (value != nullptr && value[0] != '\0') replace_path(&env->quarry_path, value);
  value = getenv("QUARRY_DEC_PATH");
  if (value != nullptr && value[0] != '\0') replace_path(&env->quarry_dec_path, value);
  value = getenv("QUARRY_FILE_MODE");
  if (value != nullptr && value[0] != '\0') apply_file_mode(env, value, "the environment");
}

quarry_env* new_env_with_defaults() {
  quarry_env* env = static_cast<quarry_env*>(calloc(1, sizeof(quarry_env)));
  if (env == nullptr) return nullptr;
  env->quarry_path = dup_dir_path(kDefaultQuarryPath);
  env->quarry_dec_path = dup_dir_path(kDefaultDecPath);
  return env;
}

enum class line_result { ok, missing_equals, missing_value };

// Parses one line (newline already removed) of the setup file. Comments and blank lines are ok
// and leave name and value empty. name and value have room for kTokenChars + 1 bytes.
line_result parse_line(const char* line, char* name, char* value) {
  name[0] = '\0';
  value[0] = '\0';
  if (line[0] == '#') return line_result::ok;  // a comment only in the first column
  const char* p = line;
  while (is_space(*p)) ++p;
  if (*p == '\0') return line_result::ok;
  int n = 0;
  while (n < kTokenChars && is_name_char(*p)) name[n++] = *p++;
  name[n] = '\0';
  while (is_space(*p)) ++p;
  if (*p != '=') return line_result::missing_equals;
  ++p;
  while (is_space(*p)) ++p;
  n = 0;
  while (n < kTokenChars && *p != '\0' && !is_space(*p)) value[n++] = *p++;
  value[n] = '\0';
  return n == 0 ? line_result::missing_value : line_result::ok;
}

// Reads the setup file into env. Returns false after printing the message of a malformed line.
bool read_setup_file(FILE* file, const char* path, quarry_env* env) {
  char line[kLineBytes];
  char name[kTokenChars + 1];
  char value[kTokenChars + 1];
  while (fgets(line, sizeof line, file) != nullptr) {
    size_t length = strlen(line);
    if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
    switch (parse_line(line, name, value)) {
      case line_result::missing_equals:
        fprintf(stderr, "Missing '=' after variable %s while parsing %s\n", name, path);
        return false;
      case line_result::missing_value:
        fprintf(stderr, "Missing value for variable %s while parsing %s\n", name, path);
        return false;
      case line_result::ok:
        break;
    }
    if (value[0] == '\0') continue;  // comment or blank line
    if (strcmp(name, "QUARRY_PATH") == 0) replace_path(&env->quarry_path, value);
    if (strcmp(name, "QUARRY_DEC_PATH") == 0) replace_path(&env->quarry_dec_path, value);
    if (strcmp(name, "QUARRY_PERSIST") == 0) env->persist = persist_value(value);
    if (strcmp(name, "QUARRY_FILE_MODE") == 0) apply_file_mode(env, value, path);
  }
  return true;
}

}  // namespace

const char* const* setup_file_in_use = nullptr;

void set_setup_file_candidates(const char* const* candidates) {
  setup_file_candidates = candidates != nullptr ? candidates : kDefaultCandidates;
}

char* dup_dir_path(const char* path) {
  size_t n = strlen(path);
  char* copy = static_cast<char*>(malloc(n + 2));
  if (copy == nullptr) return nullptr;
  memcpy(copy, path, n + 1);
  // An empty path has no last character to look at; it becomes "/".
  if (n > 0 && path[n - 1] == '/') return copy;
  copy[n] = '/';
  copy[n + 1] = '\0';
  return copy;
}

quarry_env* quarry_env_from_defaults() {
  quarry_env* env = new_env_with_defaults();
  if (env == nullptr) return nullptr;
  apply_environment(env);
  if (env->quarry_path == nullptr || env->quarry_dec_path == nullptr) {
    quarry_free_env(env);
    return nullptr;
  }
  return env;
}

extern "C" QUARRY_EXPORT quarry_env* quarry_get_env(void) {
  quarry_env* env = new_env_with_defaults();
  if (env == nullptr) return nullptr;
  FILE* file = nullptr;
  for (const char* const* candidate = setup_file_candidates; *candidate != nullptr; ++candidate) {
    file = fopen(*candidate, "re");
    if (file != nullptr) {
      setup_file_in_use = candidate;
      break;
    }
  }
  if (file != nullptr) {
    bool well_formed = read_setup_file(file, *setup_file_in_use, env);
    fclose(file);
    if (!well_formed) {
      quarry_free_env(env);
      return nullptr;
    }
  }
  apply_environment(env);
  return env;
}

extern "C" QUARRY_EXPORT void quarry_free_env(quarry_env* env) {
  if (env == nullptr) return;
  free(env->quarry_path);
  free(env->quarry_dec_path);
  free(env);
}

extern "C" QUARRY_EXPORT const char* quarry_env_get_quarry_path(const quarry_env* env) {
  return env != nullptr ? env->quarry_path : nullptr;
}

extern "C" QUARRY_EXPORT const char* quarry_env_get_quarry_dec_path(const quarry_env* env) {
  return env != nullptr ? env->quarry_dec_path : nullptr;
}
