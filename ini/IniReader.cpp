#include "ini/IniReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kel/Memory.h"

namespace zq {
namespace ini {

namespace {

struct IniKey {
    const char* name;   // points into the reader's text
    const char* value;  // points into the reader's text
    unsigned hash;
    char* unescaped;  // made on the first iniGetString, owned
};

struct IniSection {
    const char* name;
    unsigned hash;
    IniKey* keys;
    size_t count;
    size_t capacity;
};

const char kNullSection[] = "(null)";

int lower(unsigned char c) { return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c; }

// Names are compared without regard to case, so the hash folds case too.
unsigned hashName(const char* name) {
    unsigned hash = 2166136261u;
    for (; *name != '\0'; ++name) {
        hash = (hash ^ static_cast<unsigned>(lower(static_cast<unsigned char>(*name)))) * 16777619u;
    }
    return hash;
}

bool sameName(const char* a, const char* b) {
    for (; *a != '\0' &&
           lower(static_cast<unsigned char>(*a)) == lower(static_cast<unsigned char>(*b));
         ++a, ++b) {
    }
    return *a == '\0' && *b == '\0';
}

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Grows an array of `size`-byte elements to hold one more; false when out of memory.
bool reserveOne(void** items, size_t count, size_t* capacity, size_t size) {
    if (count < *capacity) {
        return true;
    }
    const size_t grown = *capacity == 0 ? 8 : *capacity * 2;
    void* bigger = kel::tryReallocate(*items, grown * size);
    if (bigger == nullptr) {
        return false;
    }
    *items = bigger;
    *capacity = grown;
    return true;
}

}  // namespace

struct IniReader {
    unsigned flags;
    char* text;  // the file's bytes, cut into NUL-terminated names and values
    char* path;
    IniSection* sections;
    size_t sectionCount;
    size_t sectionCapacity;
    int keyCount;
};

namespace {

void clearContent(IniReader* reader) {
    for (size_t s = 0; s < reader->sectionCount; ++s) {
        IniSection& section = reader->sections[s];
        for (size_t k = 0; k < section.count; ++k) {
            kel::deallocate(section.keys[k].unescaped);
        }
        kel::deallocate(section.keys);
    }
    kel::deallocate(reader->sections);
    kel::deallocate(reader->text);
    reader->sections = nullptr;
    reader->sectionCount = 0;
    reader->sectionCapacity = 0;
    reader->text = nullptr;
    reader->keyCount = 0;
}

IniSection* findSection(const IniReader* reader, const char* name, unsigned hash) {
    for (size_t s = 0; s < reader->sectionCount; ++s) {
        IniSection& section = reader->sections[s];
        if (section.hash == hash && sameName(section.name, name)) {
            return &section;
        }
    }
    return nullptr;
}

IniKey* findKey(const IniSection* section, const char* name, unsigned hash) {
    for (size_t k = 0; k < section->count; ++k) {
        IniKey& key = section->keys[k];
        if (key.hash == hash && sameName(key.name, name)) {
            return &key;
        }
    }
    return nullptr;
}

// A repeated header continues the section it names.
IniSection* openSection(IniReader* reader, const char* name) {
    const unsigned hash = hashName(name);
    IniSection* found = findSection(reader, name, hash);
    if (found != nullptr) {
        return found;
    }
    void* items = reader->sections;
    if (!reserveOne(&items, reader->sectionCount, &reader->sectionCapacity, sizeof(IniSection))) {
        return nullptr;
    }
    reader->sections = static_cast<IniSection*>(items);
    IniSection* section = &reader->sections[reader->sectionCount++];
    *section = IniSection{name, hash, nullptr, 0, 0};
    return section;
}

// The last value of a key wins.
bool setKey(IniReader* reader, IniSection* section, const char* name, const char* value) {
    const unsigned hash = hashName(name);
    IniKey* key = findKey(section, name, hash);
    if (key != nullptr) {
        key->value = value;
        kel::deallocate(key->unescaped);
        key->unescaped = nullptr;
        return true;
    }
    void* items = section->keys;
    if (!reserveOne(&items, section->count, &section->capacity, sizeof(IniKey))) {
        return false;
    }
    section->keys = static_cast<IniKey*>(items);
    section->keys[section->count++] = IniKey{name, value, hash, nullptr};
    ++reader->keyCount;
    return true;
}

char* trimEnd(char* begin, char* end) {
    while (end > begin && isBlank(end[-1])) {
        --end;
    }
    return end;
}

// Returns false only when memory runs out; malformed lines are skipped.
bool parseHeader(IniReader* reader, char* begin, char* end, IniSection** current) {
    char* close = static_cast<char*>(std::memchr(begin, ']', static_cast<size_t>(end - begin)));
    if (close == nullptr) {
        return true;
    }
    while (begin < close && isBlank(*begin)) {
        ++begin;
    }
    char* nameEnd = trimEnd(begin, close);
    if (nameEnd == begin) {
        return true;
    }
    *nameEnd = '\0';
    IniSection* section = openSection(reader, begin);
    if (section == nullptr) {
        return false;
    }
    *current = section;
    return true;
}

char* findSeparator(char* begin, char* end, unsigned flags) {
    for (char* p = begin; p < end; ++p) {
        if (*p == '=' || (*p == ':' && (flags & kIniColonSeparates) != 0)) {
            return p;
        }
    }
    return nullptr;
}

bool parseKeyLine(IniReader* reader, char* begin, char* end, IniSection** current) {
    char* separator = findSeparator(begin, end, reader->flags);
    if (separator == nullptr) {
        return true;
    }
    char* keyEnd = trimEnd(begin, separator);
    char* value = separator + 1;
    if (*separator == ':' && value < end && *value == '=') {
        ++value;
    }
    while (value < end && isBlank(*value)) {
        ++value;
    }
    char* valueEnd = trimEnd(value, end);
    if (keyEnd == begin || (valueEnd == value && (reader->flags & kIniKeepEmptyValues) == 0)) {
        return true;
    }
    *keyEnd = '\0';
    *valueEnd = '\0';
    if (*current == nullptr) {
        *current = openSection(reader, kNullSection);
        if (*current == nullptr) {
            return false;
        }
    }
    return setKey(reader, *current, begin, value);
}

bool parseLine(IniReader* reader, char* begin, char* end, IniSection** current) {
    while (begin < end && isBlank(*begin)) {
        ++begin;
    }
    if (begin == end || *begin == ';') {
        return true;
    }
    if (*begin == '[') {
        return parseHeader(reader, begin + 1, end, current);
    }
    return parseKeyLine(reader, begin, end, current);
}

// Reads the whole file into one block with a spare byte for a terminator.
int readAll(int fd, char** text, size_t* size) {
    size_t capacity = 4096;
    size_t used = 0;
    char* block = static_cast<char*>(kel::tryAllocate(capacity + 1));
    if (block == nullptr) {
        return kIniOutOfMemory;
    }
    for (;;) {
        const ssize_t got = ::read(fd, block + used, capacity - used);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            const int error = errno;
            kel::deallocate(block);
            return error == EISDIR ? kIniCannotOpen : -error;
        }
        if (got == 0) {
            break;
        }
        used += static_cast<size_t>(got);
        if (used < capacity) {
            continue;
        }
        char* bigger = static_cast<char*>(kel::tryReallocate(block, capacity * 2 + 1));
        if (bigger == nullptr) {
            kel::deallocate(block);
            return kIniOutOfMemory;
        }
        block = bigger;
        capacity *= 2;
    }
    block[used] = '\0';
    *text = block;
    *size = used;
    return 0;
}

// UTF-8 marks are skipped; the wide encodings cannot be read as bytes.
int skipByteOrderMark(const unsigned char* text, size_t size, size_t* start) {
    *start = 0;
    if (size >= 4 && text[0] == 0 && text[1] == 0 && text[2] == 0xFE && text[3] == 0xFF) {
        return kIniUnsupportedBom;
    }
    if (size >= 2 &&
        ((text[0] == 0xFF && text[1] == 0xFE) || (text[0] == 0xFE && text[1] == 0xFF))) {
        return kIniUnsupportedBom;  // UTF-16, and UTF-32 little-endian which starts alike
    }
    if (size >= 3 && text[0] == 0xEF && text[1] == 0xBB && text[2] == 0xBF) {
        *start = 3;
    }
    return 0;
}

int parseText(IniReader* reader, size_t size) {
    size_t start = 0;
    const int bom = skipByteOrderMark(reinterpret_cast<unsigned char*>(reader->text), size, &start);
    if (bom != 0) {
        return bom;
    }
    IniSection* current = nullptr;
    char* const end = reader->text + size;
    for (char* line = reader->text + start; line < end;) {
        char* newline =
            static_cast<char*>(std::memchr(line, '\n', static_cast<size_t>(end - line)));
        char* lineEnd = newline != nullptr ? newline : end;
        if (!parseLine(reader, line, lineEnd, &current)) {
            return kIniOutOfMemory;
        }
        line = lineEnd + 1;
    }
    return 0;
}

int loadFile(IniReader* reader, const char* path) {
    // The reader is a C-style layer beneath the library's file layer, so it
    // calls the system itself; without stdio, as a FILE costs a fresh process
    // two allocations and a write to the C library's list of streams.
    int fd;
    do {
        fd = ::open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return errno == ENOENT || errno == ENOTDIR ? kIniNoFile : kIniCannotOpen;
    }
    size_t size = 0;
    int result = readAll(fd, &reader->text, &size);
    ::close(fd);  // read-only: nothing can be lost here
    if (result == 0) {
        result = parseText(reader, size);
    }
    return result;
}

void unescape(const char* in, char* out) {
    while (*in != '\0') {
        if (*in != '\\' || in[1] == '\0') {
            *out++ = *in++;
            continue;
        }
        const char c = in[1];
        in += 2;
        if (c == 'n') {
            *out++ = '\n';
        } else if (c == 't') {
            *out++ = '\t';
        } else if (c == 'x' && std::isxdigit(static_cast<unsigned char>(in[0])) &&
                   std::isxdigit(static_cast<unsigned char>(in[1]))) {
            const char hex[3] = {in[0], in[1], '\0'};
            *out++ = static_cast<char>(std::strtoul(hex, nullptr, 16));
            in += 2;
        } else {
            *out++ = c;  // "\\" gives one backslash, "\q" gives "q"
        }
    }
    *out = '\0';
}

}  // namespace

IniReader* iniCreate(unsigned flags) {
    IniReader* reader = static_cast<IniReader*>(kel::tryAllocate(sizeof(IniReader)));
    if (reader != nullptr) {
        std::memset(reader, 0, sizeof *reader);
        reader->flags = flags;
    }
    return reader;
}

int iniParseFile(IniReader* reader, const char* path) {
    if (reader == nullptr) {
        return -EINVAL;
    }
    clearContent(reader);
    if (path == nullptr) {
        return kIniNoFile;
    }
    const int result = loadFile(reader, path);
    if (result < 0) {
        clearContent(reader);
        return result;
    }
    char* copy = static_cast<char*>(kel::tryAllocate(std::strlen(path) + 1));
    if (copy == nullptr) {
        clearContent(reader);
        return kIniOutOfMemory;
    }
    std::strcpy(copy, path);
    kel::deallocate(reader->path);
    reader->path = copy;
    return reader->keyCount;
}

const char* iniPath(const IniReader* reader) {
    return reader != nullptr && reader->path != nullptr ? reader->path : "";
}

bool iniHasSection(const IniReader* reader, const char* section) {
    return reader != nullptr && section != nullptr &&
           findSection(reader, section, hashName(section)) != nullptr;
}

int iniGetString(IniReader* reader, const char* section, const char* key, const char** out) {
    if (out == nullptr) {
        return -EINVAL;
    }
    *out = nullptr;
    if (reader == nullptr || section == nullptr || key == nullptr) {
        return -EINVAL;
    }
    const IniSection* found = findSection(reader, section, hashName(section));
    IniKey* entry = found != nullptr ? findKey(found, key, hashName(key)) : nullptr;
    if (entry == nullptr) {
        return 0;
    }
    if (entry->unescaped == nullptr) {
        // Unescaping never lengthens the text.
        entry->unescaped = static_cast<char*>(kel::tryAllocate(std::strlen(entry->value) + 1));
        if (entry->unescaped == nullptr) {
            return kIniOutOfMemory;
        }
        unescape(entry->value, entry->unescaped);
    }
    *out = entry->unescaped;
    return 1;
}

void iniDiscard(IniReader* reader) {
    if (reader == nullptr) {
        return;
    }
    clearContent(reader);
    kel::deallocate(reader->path);
    kel::deallocate(reader);
}

}  // namespace ini
}  // namespace zq
