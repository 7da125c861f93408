-- What the installer's tables hold beside talvorn.wxs; one statement per line.

-- The mode is handed to the part of the installer that may change the machine.
UPDATE `Property` SET `Value`='OLDER;NEWER;MODE;INSTALLEDMODE' WHERE `Property`='SecureCustomProperties'

-- Done when the installation fails (256: rollback).
UPDATE `CustomAction` SET `Type`=3442 WHERE `Action`='OpenFirewallAgain'
UPDATE `CustomAction` SET `Type`=3442 WHERE `Action`='CloseFirewallAgain'

-- The machine's PATH gets the folder at its end.
CREATE TABLE `Environment` (`Environment` CHAR(72) NOT NULL, `Name` CHAR(255) NOT NULL LOCALIZABLE, `Value` CHAR(255) LOCALIZABLE, `Component_` CHAR(72) NOT NULL PRIMARY KEY `Environment`)
INSERT INTO `Environment` (`Environment`, `Name`, `Value`, `Component_`) VALUES ('Path', '=-*PATH', '[~];[Folder]', 'Tool')

-- Who may ask for an interface to be taken up anew: the system and administrators may do
-- everything, whoever is logged on here reads and writes, other users read.
CREATE TABLE `MsiLockPermissionsEx` (`MsiLockPermissionsEx` CHAR(72) NOT NULL, `LockObject` CHAR(72) NOT NULL, `Table` CHAR(32) NOT NULL, `SDDLText` CHAR(0) NOT NULL, `Condition` CHAR(255) PRIMARY KEY `MsiLockPermissionsEx`)
INSERT INTO `MsiLockPermissionsEx` (`MsiLockPermissionsEx`, `LockObject`, `Table`, `SDDLText`) VALUES ('Interfaces', 'Interfaces', 'Registry', 'D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)(A;CI;KRKW;;;IU)(A;CI;KR;;;BU)')
