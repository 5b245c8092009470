// The end of an HMI connection.
#pragma once

// Shuts a connection down in both directions and tells the trace when that fails. The socket stays open.
void shutdown_connection(int soc);

// Closes the socket and sets soc to -1: the next connection may get the same number at once. Discards what the peer
// has already sent, since closing over unread bytes would reset the connection, and the peer might lose the last
// answer.
void close_connection(int& soc);

// Ends a connection that is not to be served: shut down and closed, without a word to peer or trace.
void refuse_connection(int& soc);
