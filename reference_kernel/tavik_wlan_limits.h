/* SPDX-License-Identifier: GPL-2.0 */
/* Limits of this project's own family TAVIK_WLAN. */
#ifndef REFERENCE_KERNEL_TAVIK_WLAN_LIMITS_H_
#define REFERENCE_KERNEL_TAVIK_WLAN_LIMITS_H_

/* How many are held at the same time; adding more is refused with -ENOSPC. */
#define TAVIK_WLAN_MAX_TUPLES 65536
#define TAVIK_WLAN_MAX_FORWARDINGS 4096
#define TAVIK_WLAN_MAX_FLOWS 4096

/* Longest device or forwarding name, without its NUL: that of a network interface. */
#define TAVIK_WLAN_MAX_NAME 15

/* Longest textual IPv4 or IPv6 address, without its NUL. */
#define TAVIK_WLAN_MAX_ADDRESS 45

#endif /* REFERENCE_KERNEL_TAVIK_WLAN_LIMITS_H_ */
