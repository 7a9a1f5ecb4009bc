// SPDX-License-Identifier: Apache-2.0
// What a compiler calls on a processor without division and without a library.

unsigned __aeabi_uidiv(unsigned a, unsigned b);
int __aeabi_idiv(int a, int b);
unsigned long long __aeabi_uidivmod(unsigned a, unsigned b);
unsigned long long __aeabi_idivmod(int a, int b);
void* memset(void* target, int value, unsigned count);
void* memcpy(void* target, const void* source, unsigned count);
void* memmove(void* target, const void* source, unsigned count);
void __aeabi_memset(void* target, unsigned count, int value);
void __aeabi_memset4(void* target, unsigned count, int value);
void __aeabi_memclr(void* target, unsigned count);
void __aeabi_memclr4(void* target, unsigned count);
void __aeabi_memclr8(void* target, unsigned count);
void __aeabi_memcpy(void* target, const void* source, unsigned count);
void __aeabi_memcpy4(void* target, const void* source, unsigned count);
void __aeabi_memcpy8(void* target, const void* source, unsigned count);
void __aeabi_memmove(void* target, const void* source, unsigned count);
void __aeabi_memmove4(void* target, const void* source, unsigned count);

unsigned __aeabi_uidiv(unsigned a, unsigned b) {
  unsigned quotient = 0;
  for (int i = 31; i >= 0; --i) {
    if ((a >> i) >= b) {
      a -= b << i;
      quotient |= 1u << i;
    }
  }
  return quotient;
}

int __aeabi_idiv(int a, int b) {
  const unsigned quotient =
      __aeabi_uidiv(a < 0 ? 0u - (unsigned)a : (unsigned)a, b < 0 ? 0u - (unsigned)b : (unsigned)b);
  return (a < 0) != (b < 0) ? (int)(0u - quotient) : (int)quotient;
}

unsigned long long __aeabi_uidivmod(unsigned a, unsigned b) {
  const unsigned quotient = __aeabi_uidiv(a, b);
  return quotient | (unsigned long long)(a - quotient * b) << 32;
}

unsigned long long __aeabi_idivmod(int a, int b) {
  const int quotient = __aeabi_idiv(a, b);
  return (unsigned)quotient | (unsigned long long)(unsigned)(a - quotient * b) << 32;
}

// `volatile` keeps a compiler from making these call themselves.
void* memset(void* target, int value, unsigned count) {
  volatile unsigned char* bytes = target;
  while (count-- > 0) {
    *bytes++ = (unsigned char)value;
  }
  return target;
}

void* memcpy(void* target, const void* source, unsigned count) {
  volatile unsigned char* to = target;
  const unsigned char* from = source;
  while (count-- > 0) {
    *to++ = *from++;
  }
  return target;
}

void* memmove(void* target, const void* source, unsigned count) {
  volatile unsigned char* to = target;
  const unsigned char* from = source;
  if (to <= from) {
    return memcpy(target, source, count);
  }
  while (count-- > 0) {
    to[count] = from[count];
  }
  return target;
}

void __aeabi_memset(void* target, unsigned count, int value) {
  memset(target, value, count);
}
void __aeabi_memset4(void* target, unsigned count, int value) {
  memset(target, value, count);
}
void __aeabi_memclr(void* target, unsigned count) {
  memset(target, 0, count);
}
void __aeabi_memclr4(void* target, unsigned count) {
  memset(target, 0, count);
}
void __aeabi_memclr8(void* target, unsigned count) {
  memset(target, 0, count);
}
void __aeabi_memcpy(void* target, const void* source, unsigned count) {
  memcpy(target, source, count);
}
void __aeabi_memcpy4(void* target, const void* source, unsigned count) {
  memcpy(target, source, count);
}
void __aeabi_memcpy8(void* target, const void* source, unsigned count) {
  memcpy(target, source, count);
}
void __aeabi_memmove(void* target, const void* source, unsigned count) {
  memmove(target, source, count);
}
void __aeabi_memmove4(void* target, const void* source, unsigned count) {
  memmove(target, source, count);
}
