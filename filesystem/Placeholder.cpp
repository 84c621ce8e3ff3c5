// This folder's library; see the headers beside this file.
