#include "tool/archive_writer.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <array>

namespace {

constexpr size_t kBlock = 512;

/// A block of the tar format, filled field by field.
class Block {
 public:
  void put(size_t offset, size_t size, const std::string& text) {
    memcpy(bytes_.data() + offset, text.data(), std::min(text.size(), size));
  }
  void put_octal(size_t offset, int digits, unsigned long number) {
    char text[32];
    snprintf(text, sizeof text, "%0*lo", digits, number);
    put(offset, static_cast<size_t>(digits) + 1, text);
  }
  std::string sealed() {
    memset(bytes_.data() + 148, ' ', 8);
    unsigned long sum = 0;
    for (const char byte : bytes_) sum += static_cast<unsigned char>(byte);
    put_octal(148, 6, sum);
    bytes_[154] = '\0';
    return {bytes_.data(), bytes_.size()};
  }

 private:
  std::array<char, kBlock> bytes_{};
};

std::string padded(const std::string& content) {
  return content + std::string((kBlock - content.size() % kBlock) % kBlock, '\0');
}

std::string tar_header(const Member& member) {
  Block block;
  block.put(0, 100, member.name);
  block.put_octal(100, 7, member.mode);
  block.put_octal(108, 7, member.owner);
  block.put_octal(116, 7, member.owner);
  block.put_octal(124, 11, member.content.size());
  block.put_octal(136, 11, 1000000000);
  block.put(156, 1, std::string(1, member.type));
  block.put(157, 100, member.link);
  block.put(257, 8, "ustar  ");
  block.put_octal(329, 7, member.major);
  block.put_octal(337, 7, member.minor);
  return block.sealed();
}

/// GNU's way with names of more than 100 bytes: a member of its own in front.
std::string long_name(char type, const std::string& name) {
  if (name.size() <= 100) return "";
  const Member record{"././@LongLink", type, std::string(name.c_str(), name.size() + 1)};
  return tar_header(record) + padded(record.content);
}

uint32_t crc32(const std::string& bytes) {
  uint32_t crc = ~0U;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
  }
  return ~crc;
}

/// The numbers of the zip format, low byte first.
std::string number(uint64_t value, size_t bytes) {
  std::string text;
  for (size_t i = 0; i < bytes; ++i) text += static_cast<char>(value >> (8 * i) & 0xffU);
  return text;
}

mode_t file_type(char type) {
  switch (type) {
    case '2':
      return S_IFLNK;
    case '3':
      return S_IFCHR;
    case '4':
      return S_IFBLK;
    case '5':
      return S_IFDIR;
    case '6':
      return S_IFIFO;
    default:
      return S_IFREG;
  }
}

/// Owner and group as Info-ZIP's tools keep them.
std::string owner_field(const Member& member) {
  return number(0x7875, 2) + number(11, 2) + number(1, 1) + number(4, 1) + number(member.owner, 4) +
         number(4, 1) + number(member.owner, 4);
}

/// What stands alike before the content and in the directory, from the version on.
std::string zip_fields(const Member& member, const std::string& content, const std::string& name) {
  return number(20, 2) + number(0, 2) + number(0, 2) + number(0x5000, 2) + number(0x3000, 2) +
         number(crc32(content), 4) + number(content.size(), 4) + number(content.size(), 4) +
         number(name.size(), 2) + number(owner_field(member).size(), 2);
}

/// More than 65535 members do not fit into the end record: one of the 64-bit format stands before.
std::string zip_end(uint64_t members, uint64_t offset, uint64_t size) {
  std::string end;
  if (members > 0xffff)
    end = "PK\x06\x06" + number(44, 8) + number(0x032d, 2) + number(45, 2) + number(0, 8) +
          number(members, 8) + number(members, 8) + number(size, 8) + number(offset, 8) +
          "PK\x06\x07" + number(0, 4) + number(offset + size, 8) + number(1, 4);
  const uint64_t count = std::min<uint64_t>(members, 0xffff);
  return end + "PK\x05\x06" + number(0, 4) + number(count, 2) + number(count, 2) + number(size, 4) +
         number(offset, 4) + number(0, 2);
}

}  // namespace

Member file(const std::string& name, const std::string& content, unsigned mode) {
  return {name, '0', content, "", mode};
}

Member directory(const std::string& name, unsigned mode) {
  return {name, '5', "", "", mode};
}

Member link_to(const std::string& target, const std::string& name) {
  return {name, '2', "", target, 0777};
}

Member hard_link_to(const std::string& target, const std::string& name) {
  return {name, '1', "", target};
}

Member special(char type, const std::string& name, unsigned major, unsigned minor) {
  return {name, type, "", "", 0666, 0, major, minor};
}

Member extended(const std::vector<std::string>& records, char type) {
  Member header{"pax", type};
  for (const std::string& record : records) {
    // The length counts itself.
    size_t length = record.size() + 3;
    while (std::to_string(length).size() + record.size() + 2 != length) ++length;
    header.content += std::to_string(length) + " " + record + "\n";
  }
  return header;
}

std::string tar_archive(const Members& members) {
  std::string archive;
  for (const Member& member : members)
    archive += long_name('K', member.link) + long_name('L', member.name) + tar_header(member) +
               padded(member.content);
  return archive + std::string(2 * kBlock, '\0');
}

std::string zip_archive(const Members& members) {
  std::string archive;
  std::string entries;
  uint64_t count = 0;
  for (const Member& member : members) {
    if (member.type == 'x' || member.type == 'g') continue;
    const std::string& content = member.type == '2' ? member.link : member.content;
    const std::string name =
        member.name + (member.type == '5' && member.name.back() != '/' ? "/" : "");
    const std::string local = member.local_name.empty() ? name : member.local_name;
    entries += "PK\x01\x02" + number(0x031e, 2) + zip_fields(member, content, name) + number(0, 2) +
               number(0, 2) + number(0, 2) +
               number(uint64_t{file_type(member.type) | member.mode} << 16U, 4) +
               number(archive.size(), 4) + name + owner_field(member);
    archive += "PK\x03\x04" + zip_fields(member, content, local) + local;
    archive += owner_field(member) + content;
    ++count;
  }
  return archive + entries + zip_end(count, archive.size(), entries.size());
}
