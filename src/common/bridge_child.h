/* What a forked child does first, and what is done for it before. A child shares every descriptor of the
 * daemon, and a socket that it keeps stays open, and its port taken, after the daemon has closed it. */
#ifndef BRIDGE_CHILD_H
#define BRIDGE_CHILD_H

/* Makes it safe for children to load libraries. In the daemon, before its first look-up of a name. */
void bridge_child_prepare();

/* Closes all descriptors but the standard ones and `kept`, if one is given, whose new number is returned. The
 * log goes on: the connection to the system logger is opened anew. Only in a child, and before it opens
 * anything. */
int bridge_child_drop_descriptors(int kept = -1);

#endif
