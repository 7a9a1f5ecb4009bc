// An outside program that uses the installed readers of other object formats.

#include <comcoff.h>
#include <indbsdio.h>
#include <pecoff.h>

#include <cstdio>
#include <cstring>

int main() {
  kelvane::bsd_info info = {};
  info.magic = kelvane::aout::OMAGIC;
  kelvane::Bsd_InitInfo(&info);
  const bool good = info.style_small == 1 && kelvane::bigendian == 0 &&
                    std::strcmp(kelvane::pecoff_machinename(0x14C), "I386") == 0;
  return good ? 0 : 1;
}
