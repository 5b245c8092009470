// The end of an HMI connection.
#pragma once

// Shuts a connection down in both directions. A failure is traced. The socket stays open.
void shutdown_connection(int soc);

// Closes the socket and sets soc to -1, because the next connection may get the same number at once. First discards
// what the peer has sent: closing a socket with unread bytes resets the connection, and the peer could lose the last
// answer.
void close_connection(int& soc);

// Shuts down and closes a connection that is not served. Sends nothing and traces nothing.
void refuse_connection(int& soc);
