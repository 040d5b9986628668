-- The tables every page reads, as PostgreSQL types them.
CREATE TABLE people (id integer PRIMARY KEY, name varchar(20), score double precision);
INSERT INTO people VALUES (1, 'Ann', 2.5), (2, 'Bob', NULL), (3, 'Cy', 7);

CREATE TABLE numbers (id integer, small smallint, wide bigint, single real, dbl double precision,
                      exact numeric(14,2), flag boolean);
INSERT INTO numbers VALUES
  (1, -7, -2147483648, 0.1, 0.1, -12.34, true),
  (2, 32767, 2147483648, -1.5, 1e300, 123456789012.25, false),
  (3, -32768, 9007199254740992, 3.25, -0.000001, 0, NULL),
  (4, 0, 9007199254740993, NULL, NULL, NULL, true),
  (5, NULL, -9223372036854775808, 0, 0, 0.5, false),
  (6, 1, 9223372036854775807, 1, 1, 1, true);

CREATE TABLE texts (id integer, short varchar(5), fixed char(3), body text);
INSERT INTO texts VALUES
  (1, 'éèçàü', 'abc', repeat('é', 300)),
  (2, '日本語', 'x€y', repeat('a', 4096)),
  (3, '', NULL, repeat('b', 4097)),
  (4, NULL, 'zzz', repeat('ü', 5000)),
  (6, 'large', 'big', repeat('large text ', 100000)),
  (5, 'a''b\c', '\\\', '');

CREATE TABLE moments (id integer, d date, t time, ts timestamp);
INSERT INTO moments VALUES
  (1, '2024-02-29', '13:14:15', '2024-02-29 13:14:15.5'),
  (2, '1000-01-01', '00:00:00', '9999-12-31 23:59:59'),
  (3, NULL, NULL, NULL);

CREATE TABLE bin (id integer, data bytea);
INSERT INTO bin VALUES
  (1, decode(repeat('000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f404142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f606162636465666768696a6b6c6d6e6f707172737475767778797a7b7c7d7e7f808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9fa0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7b8b9babbbcbdbebfc0c1c2c3c4c5c6c7c8c9cacbcccdcecfd0d1d2d3d4d5d6d7d8d9dadbdcdddedfe0e1e2e3e4e5e6e7e8e9eaebecedeeeff0f1f2f3f4f5f6f7f8f9fafbfcfdfeff', 40), 'hex')),
  (2, ''::bytea),
  (3, NULL),
  (4, decode('00', 'hex'));

CREATE TABLE ledger (n integer);
CREATE TABLE notes (id integer, body text);

CREATE TABLE big AS
  SELECT g AS id, 'name number ' || g AS name, g * 0.5::float8 AS amount,
         timestamp '2024-01-01' + g * interval '1 minute' AS created
  FROM generate_series(1, 100000) g;
