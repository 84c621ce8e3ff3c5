#pragma once
// Path name arithmetic of the file manager. Pure text except resolvingSymlinksInPath, which reads
// symbolic links. Thread-safe.
//
// standardizedPath: empty and "." components removed, a trailing "/" dropped; in an absolute path
// ".." removes the component before it ("/.." is "/"); in a relative path ".." stays (what comes
// before it may be a link). "" stays "", a relative path of nothing but "." becomes ".".
//
// resolvingSymlinksInPath, for an absolute path: every component that exists is resolved (a
// symbolic link is replaced by its destination, relative destinations read from the link's
// folder, ".." after a resolved component goes to the real parent); from the first component
// that does not exist (or cannot be looked at) the rest is kept as written, standardised; should
// a later ".." lead back into existing ground, resolution goes on there. More than 40 links, or a
// destination that cannot be read, leaves the whole path standardised. A relative path is returned
// standardised and is not resolved: the daemon's working folder means nothing to a client.
// No "~" expansion.

#include <string>
#include <string_view>

namespace krv {

std::string standardizedPath(std::string_view path);
// "/a/b" -> "/a", "/a" -> "/", "/" -> "/", "a" -> "", trailing slashes ignored.
std::string deletingLastPathComponent(std::string_view path);
// "/a" + "b" -> "/a/b", "/" + "b" -> "/b", "." + "b" -> "./b", "" + "b" -> "b", trailing slashes
// of base ignored. Every path below a base is joined this way: walks that build paths in their own
// buffers begin them with pathPrefixBelow(base), and appendPathComponent joins in place.
std::string appendingPathComponent(std::string_view base, std::string_view component);
// What every path below `base` begins with: "/a/" for "/a" and "/a//", "/" for "/", "./" for ".",
// "" for "". appendingPathComponent(base, c) is pathPrefixBelow(base) + c.
std::string pathPrefixBelow(std::string_view base);
// path = appendingPathComponent(path, component), without a new string.
void appendPathComponent(std::string& path, std::string_view component);
// The last component ("/a/b/" -> "b", "/" -> "/", "" -> "").
std::string lastPathComponent(std::string_view path);
std::string resolvingSymlinksInPath(std::string_view path);
// "/a//" -> "/a", "//" -> "/": the object a path names, not what a trailing slash would follow to.
std::string_view withoutTrailingSlashes(std::string_view path);

}  // namespace krv
